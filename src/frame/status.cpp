// Built-in status texts, the one error routine and the sticky first error.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "frame/frame.h"

namespace korvel {
namespace {

struct StatusText {
  int16_t code;
  const char* text;
};

// Every status the library produces, with its exact text.
constexpr StatusText kStatusTexts[] = {
    {0, ""},
    {1, "end of group, no further record"},
    {2, "record not found"},
    {3, "channel name not found"},
    {4, "channel not found"},
    {5, "file is already sorted"},
    {6, "value range is unknown"},
    {7, "group not found"},
    {8, "cycle counter has been corrected (increased)"},
    {9, "cycle counter has been corrected (decreased)"},
    {1000, "could not open file"},
    {1001, "group not found"},
    {1002, "channel not found"},
    {1003, "time channel does not exist"},
    {1004, "no formula found"},
    {1005, "unknown formula type"},
    {1006, "triggerinfo not found"},
    {1007, "tirgger not known"},
    {1008, "time channel not found"},
    {1009, "module info not found"},
    {1010, "file is not sorted"},
    {1011, "illegal formula type, not a table"},
    {1012, "group must not be open"},
    {1013, "length of channel block (in this version) is not sufficient to set data"},
    {1014, "bit size of channel > 32 and no XxDbl method used"},
    {1015, "bit size of channel > 64 and no XxData method used"},
    {1016, "method can only be used if both bit size and offset are multiple of 8"},
    {1017, "illegal formula type, not a verbal table"},
    {1018, "illegal formula type, not a area verbal table"},
    {1019, "index outside range of verbal conversion table"},
    {1020, "Unsupported channel datatype"},
    {1021, "Unsupported conversion rule type"},
    {1022, "no access to target file!"},
    {1023, "library already open, cannot be initialized twice!"},
    {1024, "files has newer MDF version than supported by MDF library"},
    {1025, "invalid (or very unlikely) time stamp found"},
    {-1000, "MDF library not initialized"},
    {-1001, "bad filehandle"},
    {-1002, "bad grouphandle"},
    {-1003, "bad channelhandle"},
    {-1004, "illegal group open mode"},
    {-1005, "illegal seek mode"},
    {-1006, "illegal channel type"},
    {-1007, "illegal nummer of channel bits"},
    {-1008, "illegal channel value type"},
    {-1009, "simulanous groups creates are not allowed"},
    {-2000, "could not write file"},
    {-2001, "could not read file"},
    {-2002, "could not locate pos in file"},
    {-2003, "unable to close file"},
    {-2004, "file format"},
    {-2005, "inconsistent file"},
    {-2006, "too many channels"},
    {-2007, "out of memory"},
    {-2008, "unknown block"},
    {-2009, "unknown link"},
    {-2010, "node not found"},
    {-2011, "fatal error"},
    {-2012, "incompatible float format, no modify"},
    {-2013, "user abort"},
    {-2014, "file exceeds maximum size for MDF files"},
};

}  // namespace

const char* builtin_text(int16_t code) {
  for (const auto& entry : kStatusTexts) {
    if (entry.code == code) return entry.text;
  }
  return nullptr;
}

int16_t raise(int16_t status, const char* context) {
  if (context == nullptr) context = "";
  char line[129];
  const char* text = builtin_text(status);
  // snprintf cuts the line at 128 characters.
  if (text != nullptr) {
    std::snprintf(line, sizeof line, "%s %s\n", text, context);
  } else {
    std::snprintf(line, sizeof line, "%s \n", context);
  }
  LibraryState& s = state();
  if (status < 0 && s.first_error == 0) {
    s.first_error = status;
    std::memcpy(s.first_error_text, line, sizeof line);
  }
  mdfPrintError(line);
  return status;
}

int16_t raise_fmt(int16_t status, const char* format, ...) {
  char context[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(context, sizeof context, format, args);
  va_end(args);
  return raise(status, context);
}

}  // namespace korvel

using korvel::state;

extern "C" {

KORVEL_API int16_t mdfGetErrorCode(void) {
  return state().first_error;
}

KORVEL_API const char* mdfGetErrorText(void) {
  return state().first_error != 0 ? state().first_error_text : "";
}

KORVEL_API const char* mdfGetTextStrD(int16_t code) {
  return korvel::builtin_text(code);
}

KORVEL_API const char* mdfGetMsgStr(int16_t code) {
  return korvel::builtin_text(code);
}

KORVEL_API int16_t mdfAssertFailed(const char* unit, int32_t line) {
  char* text = state().assert_text;
  // The buffer holds 255 characters and is terminated at its last position.
  std::snprintf(text, 255, "Internal Error %u-%s-%d\n",
                static_cast<unsigned>(state().context_depth), unit != nullptr ? unit : "",
                static_cast<int>(line));
  text[254] = '\0';
  return korvel::raise(MDF_ERR_FATAL, text);
}

}  // extern "C"
