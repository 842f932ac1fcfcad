#include "tools/zvmap/json_writer.h"

#include <cmath>
#include <cstdio>

#include "tools/zvmap/console.h"

namespace zorvane {
namespace tools {
namespace zvmap {

std::string jsonQuote(const std::string& text) {
  std::string out = "\"";
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += ch;
        }
    }
  }
  return out + "\"";
}

void JsonWriter::beforeValue() {
  if (after_key_) {
    after_key_ = false;
    return;
  }
  if (!has_element_.empty()) {
    if (has_element_.back()) text_ += ',';
    has_element_.back() = true;
  }
}

JsonWriter& JsonWriter::beginObject() {
  beforeValue();
  text_ += '{';
  has_element_.push_back(false);
  return *this;
}

JsonWriter& JsonWriter::endObject() {
  text_ += '}';
  has_element_.pop_back();
  return *this;
}

JsonWriter& JsonWriter::beginArray() {
  beforeValue();
  text_ += '[';
  has_element_.push_back(false);
  return *this;
}

JsonWriter& JsonWriter::endArray() {
  text_ += ']';
  has_element_.pop_back();
  return *this;
}

JsonWriter& JsonWriter::key(const std::string& name) {
  beforeValue();
  text_ += jsonQuote(name);
  text_ += ':';
  after_key_ = true;
  return *this;
}

JsonWriter& JsonWriter::value(const std::string& s) {
  beforeValue();
  text_ += jsonQuote(s);
  return *this;
}

JsonWriter& JsonWriter::value(bool b) {
  beforeValue();
  text_ += b ? "true" : "false";
  return *this;
}

JsonWriter& JsonWriter::value(std::int64_t n) {
  beforeValue();
  text_ += std::to_string(n);
  return *this;
}

JsonWriter& JsonWriter::value(double d) {
  if (!std::isfinite(d)) return null();
  beforeValue();
  text_ += formatDouble(d);
  return *this;
}

JsonWriter& JsonWriter::value(float f) {
  if (!std::isfinite(f)) return null();
  beforeValue();
  text_ += formatFloat(f);
  return *this;
}

JsonWriter& JsonWriter::null() {
  beforeValue();
  text_ += "null";
  return *this;
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
