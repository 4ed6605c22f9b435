// A minimal JSON reader for test data.
#include "support/json_value.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <sstream>
#include <stdexcept>

namespace mdftest::json {
namespace {

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  Value document() {
    Value v = value();
    skip_blanks();
    if (pos_ != text_.size()) fail("text after the document");
    return v;
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error("json: " + what + " at offset " + std::to_string(pos_));
  }
  void skip_blanks() {
    while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' ||
                                   text_[pos_] == '\n' || text_[pos_] == '\r')) {
      ++pos_;
    }
  }
  char peek() const { return pos_ < text_.size() ? text_[pos_] : '\0'; }
  void expect(char c) {
    if (peek() != c) fail(std::string("expected '") + c + "'");
    ++pos_;
  }
  bool literal(std::string_view word) {
    if (text_.substr(pos_, word.size()) != word) return false;
    pos_ += word.size();
    return true;
  }

  Value value() {
    skip_blanks();
    Value v;
    const char c = peek();
    if (c == '{') {
      v.type = Value::Type::object;
      ++pos_;
      skip_blanks();
      if (peek() == '}') {
        ++pos_;
        return v;
      }
      for (;;) {
        skip_blanks();
        std::string key = string_literal();
        skip_blanks();
        expect(':');
        v.names.push_back(std::move(key));
        v.members.push_back(value());
        skip_blanks();
        if (peek() == ',') {
          ++pos_;
          continue;
        }
        expect('}');
        return v;
      }
    }
    if (c == '[') {
      v.type = Value::Type::array;
      ++pos_;
      skip_blanks();
      if (peek() == ']') {
        ++pos_;
        return v;
      }
      for (;;) {
        v.array.push_back(value());
        skip_blanks();
        if (peek() == ',') {
          ++pos_;
          continue;
        }
        expect(']');
        return v;
      }
    }
    if (c == '"') {
      v.type = Value::Type::string;
      v.string = string_literal();
      return v;
    }
    if (literal("true")) {
      v.type = Value::Type::boolean;
      v.boolean = true;
      return v;
    }
    if (literal("false")) {
      v.type = Value::Type::boolean;
      return v;
    }
    if (literal("null")) return v;
    if (c == '-' || (c >= '0' && c <= '9')) return number();
    fail("unexpected character");
  }

  Value number() {
    const std::size_t start = pos_;
    Value v;
    v.type = Value::Type::number;
    if (peek() == '-') {
      v.negative = true;
      ++pos_;
    }
    if (!(peek() >= '0' && peek() <= '9')) fail("digit expected");
    bool fits = true;
    uint64_t magnitude = 0;
    while (peek() >= '0' && peek() <= '9') {
      const auto digit = static_cast<uint64_t>(peek() - '0');
      if (magnitude > (std::numeric_limits<uint64_t>::max() - digit) / 10) fits = false;
      magnitude = magnitude * 10 + digit;
      ++pos_;
    }
    bool integer = true;
    if (peek() == '.') {
      integer = false;
      ++pos_;
      while (peek() >= '0' && peek() <= '9') ++pos_;
    }
    if (peek() == 'e' || peek() == 'E') {
      integer = false;
      ++pos_;
      if (peek() == '+' || peek() == '-') ++pos_;
      while (peek() >= '0' && peek() <= '9') ++pos_;
    }
    const std::string literal_text(text_.substr(start, pos_ - start));
    v.number = std::strtod(literal_text.c_str(), nullptr);
    v.integral = integer && fits;
    v.magnitude = v.integral ? magnitude : 0;
    return v;
  }

  static void append_utf8(std::string& out, uint32_t code) {
    if (code < 0x80) {
      out += static_cast<char>(code);
    } else if (code < 0x800) {
      out += static_cast<char>(0xC0 | (code >> 6));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      out += static_cast<char>(0xE0 | (code >> 12));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (code >> 18));
      out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }

  uint32_t hex4() {
    if (pos_ + 4 > text_.size()) fail("short \\u escape");
    uint32_t code = 0;
    for (int i = 0; i < 4; ++i) {
      const char h = text_[pos_++];
      code <<= 4;
      if (h >= '0' && h <= '9') {
        code |= static_cast<uint32_t>(h - '0');
      } else if (h >= 'a' && h <= 'f') {
        code |= static_cast<uint32_t>(h - 'a' + 10);
      } else if (h >= 'A' && h <= 'F') {
        code |= static_cast<uint32_t>(h - 'A' + 10);
      } else {
        fail("bad \\u escape");
      }
    }
    return code;
  }

  std::string string_literal() {
    expect('"');
    std::string out;
    for (;;) {
      if (pos_ >= text_.size()) fail("unterminated string");
      const char c = text_[pos_++];
      if (c == '"') return out;
      if (c != '\\') {
        out += c;
        continue;
      }
      if (pos_ >= text_.size()) fail("unterminated escape");
      const char e = text_[pos_++];
      switch (e) {
        case '"':
        case '\\':
        case '/':
          out += e;
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          uint32_t code = hex4();
          if (code >= 0xD800 && code < 0xDC00 && text_.substr(pos_, 2) == "\\u") {
            pos_ += 2;
            const uint32_t low = hex4();
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
          }
          append_utf8(out, code);
          break;
        }
        default:
          fail("unknown escape");
      }
    }
  }

  std::string_view text_;
  std::size_t pos_ = 0;
};

}  // namespace

const Value* Value::find(std::string_view key) const {
  if (type != Type::object) return nullptr;
  for (size_t i = 0; i < names.size(); ++i) {
    if (names[i] == key) return &members[i];
  }
  return nullptr;
}

const Value& Value::operator[](std::string_view key) const {
  const Value* v = find(key);
  if (v == nullptr) throw std::out_of_range("json: no member " + std::string(key));
  return *v;
}

int64_t Value::as_int64() const {
  if (type != Type::number || !integral) throw std::domain_error("json: not an integer");
  if (negative) {
    if (magnitude > uint64_t{1} << 63) throw std::domain_error("json: integer out of range");
    return static_cast<int64_t>(~magnitude + 1);
  }
  if (magnitude > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    throw std::domain_error("json: integer out of range");
  }
  return static_cast<int64_t>(magnitude);
}

uint64_t Value::as_uint64() const {
  if (type != Type::number || !integral || (negative && magnitude != 0)) {
    throw std::domain_error("json: not an unsigned integer");
  }
  return magnitude;
}

Value parse(std::string_view text) {
  return Parser(text).document();
}

Value parse_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("json: cannot read " + path.string());
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return parse(text);
}

}  // namespace mdftest::json
