// Console lines of the library: whole lines on standard output, each ended
// and flushed, in ANSI colours. Red reports an error, yellow a missing
// parameter, green progress. The colour is reset before the end of line.
#ifndef ZORVANE_COMMON_CONSOLE_H_
#define ZORVANE_COMMON_CONSOLE_H_

#include <string>

namespace zorvane {
namespace common {

constexpr char kRed[] = "\033[31m";
constexpr char kYellow[] = "\033[33m";
constexpr char kGreen[] = "\033[32m";
constexpr char kColourReset[] = "\033[0m";

// Writes `colour`, `text`, the reset, then an end of line with a flush.
void printColouredLine(const char* colour, const std::string& text);

inline void printRedLine(const std::string& text) { printColouredLine(kRed, text); }
inline void printGreenLine(const std::string& text) { printColouredLine(kGreen, text); }

}  // namespace common
}  // namespace zorvane

#endif  // ZORVANE_COMMON_CONSOLE_H_
