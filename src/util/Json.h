#pragma once

// The one way into RapidJSON. Its own type assertions are the store's type checks, so they
// must stay on in every build type and end the process through the recorded assertion.
#include "util/Assert.h"

#ifdef RAPIDJSON_ASSERT
#error "RapidJSON must be included through util/Json.h"
#endif
#define RAPIDJSON_ASSERT(x) KESTRUNE_ASSERT(x)
#define RAPIDJSON_HAS_STDSTRING 1

#include "util/Text.h"

#include <rapidjson/document.h>
#include <rapidjson/filereadstream.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <string>

namespace Kestrune {

// A JSON writer whose strings are valid UTF-8 whatever bytes they are given (see
// utf8Escaped), so that a store's odd name never makes an output invalid JSON.
template <class Base>
class SafeJsonWriter : public Base {
  public:
    using Base::Base;
    bool String(const char* text, rapidjson::SizeType length, bool copy = false) {
        const std::string valid = utf8Escaped(std::string_view(text, length));
        return Base::String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()), copy);
    }
    bool String(const char* text) { return String(text, std::char_traits<char>::length(text)); }
    bool String(const std::string& text) {
        return String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    }
    bool Key(const char* text, rapidjson::SizeType length, bool copy = false) {
        const std::string valid = utf8Escaped(std::string_view(text, length));
        return Base::Key(valid.data(), static_cast<rapidjson::SizeType>(valid.size()), copy);
    }
    bool Key(const char* text) { return Key(text, std::char_traits<char>::length(text)); }
    bool Key(const std::string& text) {
        return Key(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    }
};

using JsonWriter = SafeJsonWriter<rapidjson::Writer<rapidjson::StringBuffer>>;
using PrettyJsonWriter = SafeJsonWriter<rapidjson::PrettyWriter<rapidjson::StringBuffer>>;

} // namespace Kestrune
