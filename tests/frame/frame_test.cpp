#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "frame/frame.h"
#include "korvel.h"
#include "support/scratch.h"

namespace {

namespace fs = std::filesystem;

// A fresh session; a test may change into its scratch directory and set the hook and the
// user text file, which the end of the test puts back.
class Frame : public mdftest::Session {
 protected:
  void TearDown() override {
    korvel::set_close_files_hook(nullptr);
    mdfSetUsrTextFile("");
    fs::current_path(old_dir_);
    Session::TearDown();
  }
  const fs::path old_dir_ = fs::current_path();
};

TEST_F(Frame, RaisedStatusesStickFormatAndReachTheLog) {
  // Only a negative status sticks; it survives mdfClose and goes at the next mdfOpen.
  for (int16_t status : std::vector<int16_t>{1, 1000, 1023, -1001, -2011}) {
    SCOPED_TRACE(status);
    const int16_t sticky = status < 0 ? status : 0;
    EXPECT_EQ(korvel::raise(status, "ctx"), status);
    EXPECT_EQ(mdfGetErrorCode(), sticky);
    mdfClose();
    EXPECT_EQ(mdfGetErrorCode(), sticky);
    restart();
    EXPECT_EQ(mdfGetErrorCode(), 0);
    EXPECT_STREQ(mdfGetErrorText(), "");
  }
  // The status's text and the context, cut at 128 characters; a later error replaces nothing.
  const std::string long_context(200, 'c');
  const std::tuple<int16_t, const char*, std::string> rows[] = {
      {-2004, "first", "file format first\n"},
      {-2002, long_context.c_str(), "could not locate pos in file " + std::string(99, 'c')},
      {-3000, "lonely", "lonely \n"}};  // a status without text: the context alone
  for (const auto& [status, context, text] : rows) {
    restart();
    korvel::raise(status, context);
    korvel::raise(-2001, "second");
    EXPECT_EQ(mdfGetErrorCode(), status);
    EXPECT_EQ(mdfGetErrorText(), text);
  }
  // An assertion names the context depth, the unit and the line.
  restart();
  mdfContextOpen();
  EXPECT_EQ(mdfAssertFailed("BNODE", 42), MDF_ERR_FATAL);
  EXPECT_STREQ(korvel::state().assert_text, "Internal Error 2-BNODE-42\n");
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_FATAL);
  restart();
  EXPECT_EQ(mdfOpen("AGAIN"), MDF_ALREADY_OPEN);
  EXPECT_EQ(mdfGetErrorCode(), 0);
  korvel::raise(7, "(n=3)");
  mdfPrintMessage("hello");
  const std::string log = mdftest::log_text();
  for (const char* line : {"[KORVEL-ERROR] library already open, cannot be initialized twice! \n\n",
                           "[KORVEL-ERROR] group not found (n=3)\n\n", "[KORVEL-Message] hello\n"})
    EXPECT_NE(log.find(line), std::string::npos) << line;
}

// Built-in texts, then the message text files: the caller's file first, then KORVEL.TXT in
// the current directory (lines "<status>:<text>", CRLF line ends cut).
TEST_F(Frame, MessageTexts) {
  const std::pair<int16_t, const char*> builtin[] = {
      {0, ""},
      {7, "group not found"},
      {1002, "channel not found"},
      {1007, "tirgger not known"},
      {-1004, "illegal group open mode"},
      {-2014, "file exceeds maximum size for MDF files"},
      {10, nullptr},
      {999, nullptr}};
  for (const auto& [code, text] : builtin) {
    SCOPED_TRACE(code);
    EXPECT_STREQ(mdfGetTextStrD(code), text);
    EXPECT_STREQ(text == nullptr ? nullptr : mdfGetMsgStr(code), text);
  }
  fs::current_path(dir_);
  std::ofstream("KORVEL.TXT", std::ios::binary)
      << "no number here\n1001: group not found\n  -1001:bad handle\n5:five\r\n";
  std::ofstream("user.txt", std::ios::binary) << "# user texts\n5:user five\n1001\n";
  EXPECT_STREQ(mdfGetTextStrF(1001), " group not found");
  EXPECT_STREQ(mdfGetTextStrF(-1001), "bad handle");
  EXPECT_STREQ(mdfGetTextStrF(5), "five");
  EXPECT_EQ(mdfSetUsrTextFile("user.txt"), 0);
  EXPECT_STREQ(mdfGetTextStrF(5), "user five");            // the user file wins
  EXPECT_STREQ(mdfGetTextStrF(1001), " group not found");  // falls back to KORVEL.TXT
  EXPECT_STREQ(mdfGetTextStrF(6), "[KORVEL] Error Nr.: 6");
  mdfSetUsrTextFile("missing.txt");
  EXPECT_STREQ(mdfGetTextStrF(5), "five");
  // The shipped text file holds every built-in text.
  mdfSetUsrTextFile(KORVEL_TEXT_FILE);
  int checked = 0;
  for (int code = -2100; code <= 1100; ++code) {
    const char* text = mdfGetTextStrD(static_cast<int16_t>(code));
    if (text == nullptr || code == 0) continue;
    EXPECT_STREQ(mdfGetTextStrF(static_cast<int16_t>(code)), text) << code;
    ++checked;
  }
  EXPECT_EQ(checked, 60);
}

// The versions are bounded copies without an extra terminator, padded with zeros in a longer
// buffer. Memory is zeroed and tagged: a block whose tag is damaged is refused with an
// internal error and left alone. The module path is filled at load and again by LibMain.
TEST_F(Frame, VersionsMemoryAndModulePath) {
  const std::tuple<char* (*)(char*, int32_t), int32_t, std::string> versions[] = {
      {mdfGetMdfFormatVersion, 8, "3.30    #"},
      {mdfGetKorvelVersion, 4, "5.87#"},
      {mdfGetKorvelVersion, 20, std::string("5.87 (2017-06-27)\0\0\0#", 21)}};
  for (const auto& [get, size, expected] : versions) {
    char buffer[24];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(get(buffer, size), buffer);
    EXPECT_EQ(std::string(buffer, size + 1), expected);
  }
  const int32_t left = mdfCoreLeft();  // half the free memory, within 16 and 128 MiB
  EXPECT_TRUE(left >= 16777216 && left <= 134217728) << left;
  auto* p = static_cast<uint8_t*>(mdfMalloc(100));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(p, p + 100), std::vector<uint8_t>(100, 0));
  mdfFree(p);
  EXPECT_EQ(mdfGetErrorCode(), 0);
  p = static_cast<uint8_t*>(mdfMalloc(8));
  p[-1] ^= 0xFF;
  mdfFree(p);
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_FATAL);
  EXPECT_STREQ(mdfGetErrorText(), "fatal error Internal Error 1-KORVEL-63\n\n");
  p[-1] ^= 0xFF;
  mdfFree(p);
  const std::string at_load = korvel::module_path();
  EXPECT_TRUE(fs::path(at_load).is_absolute()) << at_load;
  std::memset(korvel::module_path(), 'x', 255);
  EXPECT_EQ(LibMain(nullptr, 1, 1, nullptr), 1);
  EXPECT_EQ(std::string(korvel::module_path()), at_load);
}

TEST_F(Frame, ContextsCloseTheirOwnLevel) {
  static std::vector<uint16_t> closed;
  closed.clear();
  korvel::set_close_files_hook([](uint16_t depth) -> int16_t {
    closed.push_back(depth);
    return 0;
  });
  EXPECT_EQ(mdfContextOpen(), 0);
  EXPECT_EQ(mdfContextOpen(), 0);
  EXPECT_EQ(mdfContextClose(), 0);
  EXPECT_EQ(closed, (std::vector<uint16_t>{3}));
  EXPECT_EQ(mdfClose(), 0);
  EXPECT_EQ(closed, (std::vector<uint16_t>{3, 2, 1}));
  // Closed: a context open initialises, and closing depth 1 is mdfClose.
  EXPECT_EQ(mdfContextClose(), 0);
  EXPECT_EQ(mdfContextOpen(), 0);
  EXPECT_EQ(mdfContextClose(), 0);
  EXPECT_EQ(closed, (std::vector<uint16_t>{3, 2, 1, 1}));
}

}  // namespace
