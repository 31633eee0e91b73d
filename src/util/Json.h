#pragma once

// The one way into RapidJSON. Its own type assertions are the store's type checks, so they
// must stay on in every build type and end the process through the recorded assertion.
#include "util/Assert.h"

#ifdef RAPIDJSON_ASSERT
#error "RapidJSON must be included through util/Json.h"
#endif
#define RAPIDJSON_ASSERT(x) KESTRUNE_ASSERT(x)
#define RAPIDJSON_HAS_STDSTRING 1

#include <rapidjson/document.h>
#include <rapidjson/filereadstream.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
