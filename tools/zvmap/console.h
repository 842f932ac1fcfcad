// The tool's conventions for the console: exit statuses, the one-line
// failure message, number formatting, and progress on a terminal.
#ifndef ZORVANE_TOOLS_ZVMAP_CONSOLE_H_
#define ZORVANE_TOOLS_ZVMAP_CONSOLE_H_

#include <chrono>
#include <cstdint>
#include <string>

namespace zorvane {
namespace tools {
namespace zvmap {

// Exit statuses of every subcommand.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // invalid, unreadable or rejected map; a problem found
constexpr int kExitUsage = 2;   // bad arguments

// Prints "zvmap: <subject>: <reason>" on standard error and returns
// kExitFailed. `subject` is usually a file name.
int fail(const std::string& subject, const std::string& reason);

// Shortest decimal text that reads back as the same float (double); "inf",
// "-inf" and "nan" for the non-finite values.
std::string formatFloat(float v);
std::string formatDouble(double v);
// Fixed notation with `decimals` digits after the point.
std::string formatFixed(double v, int decimals);
// A byte count with a binary unit: "812 B", "12.3 KiB", "1.50 GiB".
std::string formatBytes(double bytes);

// Progress of one long step on standard error, redrawn in place at most ten
// times a second, and only when standard error is a terminal: piped or
// redirected output never carries it. The line is cleared when the step
// ends (finish() or destruction).
class Progress {
 public:
  // `label` names the step; `total` is the amount of work (0: unknown,
  // only the elapsed time is shown).
  Progress(std::string label, std::int64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void update(std::int64_t done);
  void finish();

 private:
  void draw(std::int64_t done);

  std::string label_;
  std::int64_t total_;
  bool active_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point last_draw_;
};

// Seconds since `start`, for reports of how long a step took.
double secondsSince(std::chrono::steady_clock::time_point start);

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane

#endif  // ZORVANE_TOOLS_ZVMAP_CONSOLE_H_
