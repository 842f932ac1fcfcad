// A small writer of one JSON document, for the tool's --json output.
#ifndef ZORVANE_TOOLS_ZVMAP_JSON_WRITER_H_
#define ZORVANE_TOOLS_ZVMAP_JSON_WRITER_H_

#include <cstdint>
#include <string>
#include <vector>

namespace zorvane {
namespace tools {
namespace zvmap {

// Builds compact JSON text. Inside an object, every value is preceded by
// key(); the writer inserts the commas. Numbers are written in their
// shortest exact decimal form; non-finite numbers, which JSON cannot hold,
// are written as null. Strings are escaped as JSON requires (control
// characters as \u00XX; other bytes are passed through, so UTF-8 stays
// UTF-8).
class JsonWriter {
 public:
  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  JsonWriter& key(const std::string& name);
  JsonWriter& value(const std::string& text);
  JsonWriter& value(const char* text) { return value(std::string(text)); }
  JsonWriter& value(bool b);
  JsonWriter& value(std::int64_t n);
  JsonWriter& value(std::uint32_t n) { return value(static_cast<std::int64_t>(n)); }
  JsonWriter& value(std::int32_t n) { return value(static_cast<std::int64_t>(n)); }
  JsonWriter& value(double d);
  JsonWriter& value(float f);
  JsonWriter& null();

  const std::string& text() const { return text_; }

 private:
  void beforeValue();

  std::string text_;
  // Per open container: whether it already holds an element.
  std::vector<bool> has_element_;
  bool after_key_ = false;
};

// `text` as a quoted JSON string.
std::string jsonQuote(const std::string& text);

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane

#endif  // ZORVANE_TOOLS_ZVMAP_JSON_WRITER_H_
