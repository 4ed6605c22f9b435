#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "frame/frame.h"
#include "korvel.h"
#include "support/scratch.h"

namespace {

class Frame : public ::testing::Test {
 protected:
  void SetUp() override {
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
  }
  void TearDown() override {
    korvel::set_close_files_hook(nullptr);
    mdfClose();
  }
};

TEST_F(Frame, StickyErrorRules) {
  for (int16_t status : std::vector<int16_t>{1, 1000, 1023, -1001, -2011}) {
    SCOPED_TRACE(status);
    const int16_t sticky = status < 0 ? status : 0;
    EXPECT_EQ(korvel::raise(status, "ctx"), status);
    EXPECT_EQ(mdfGetErrorCode(), sticky);
    mdfClose();
    // A stored first error survives mdfClose and is cleared only by the next mdfOpen.
    EXPECT_EQ(mdfGetErrorCode(), sticky);
    ASSERT_EQ(mdfOpen(nullptr), 0);
    EXPECT_EQ(mdfGetErrorCode(), 0);
    EXPECT_STREQ(mdfGetErrorText(), "");
  }
  // Only the first negative status sticks.
  korvel::raise(-2004, "first");
  korvel::raise(-2001, "second");
  EXPECT_EQ(mdfGetErrorCode(), -2004);
  EXPECT_STREQ(mdfGetErrorText(), "file format first\n");
}

TEST_F(Frame, RaiseFormatsAndCutsAt128Characters) {
  const std::string context(200, 'c');
  korvel::raise(-2002, context.c_str());
  const std::string text = mdfGetErrorText();
  ASSERT_EQ(text.size(), 128u);
  EXPECT_EQ(text.substr(0, 29), "could not locate pos in file ");
  EXPECT_EQ(text.back(), 'c');  // the line end was cut off

  // A status without text formats the context alone.
  mdfClose();
  mdfOpen(nullptr);
  korvel::raise(-3000, "lonely");
  EXPECT_STREQ(mdfGetErrorText(), "lonely \n");
}

TEST_F(Frame, RaisedLinesReachTheLog) {
  EXPECT_EQ(mdfOpen("AGAIN"), MDF_ALREADY_OPEN);
  EXPECT_EQ(mdfGetErrorCode(), 0);
  korvel::raise(7, "(n=3)");
  mdfPrintMessage("hello");
  const std::string log = mdftest::log_text();
  EXPECT_NE(log.find("[KORVEL-ERROR] library already open, cannot be initialized twice! \n\n"),
            std::string::npos);
  EXPECT_NE(log.find("[KORVEL-ERROR] group not found (n=3)\n\n"), std::string::npos);
  EXPECT_NE(log.find("[KORVEL-Message] hello\n"), std::string::npos);
}

TEST_F(Frame, BuiltInTexts) {
  const std::pair<int16_t, const char*> cases[] = {
      {0, ""},
      {7, "group not found"},
      {1001, "group not found"},
      {4, "channel not found"},
      {1002, "channel not found"},
      {1007, "tirgger not known"},
      {-1004, "illegal group open mode"},
      {-2014, "file exceeds maximum size for MDF files"},
      {10, nullptr},
      {-1, nullptr},
      {999, nullptr}};
  for (const auto& [code, text] : cases) {
    SCOPED_TRACE(code);
    EXPECT_STREQ(mdfGetTextStrD(code), text);
    EXPECT_STREQ(text == nullptr ? nullptr : mdfGetMsgStr(code), text);
  }
}

TEST_F(Frame, ProgramIdentifierIsAFixedWidthBoundedCopy) {
  const std::pair<const char*, std::string> cases[] = {{nullptr, std::string("KORVEL\0\0", 8)},
                                                       {"ABCDEFGHIJ", "ABCDEFGH"},
                                                       {"XY", std::string("XY\0\0\0\0\0\0", 8)}};
  for (const auto& [given, expected] : cases) {
    mdfClose();
    ASSERT_EQ(mdfOpen(given), 0);
    EXPECT_EQ(std::string(korvel::state().program_id, 8), expected);
  }
}

TEST_F(Frame, VersionsAreBoundedCopiesWithoutExtraTerminator) {
  char buffer[24];
  std::memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(mdfGetMdfFormatVersion(buffer, 8), buffer);
  EXPECT_EQ(std::string(buffer, 9), "3.30    #");
  std::memset(buffer, '#', sizeof buffer);
  mdfGetKorvelVersion(buffer, 4);
  EXPECT_EQ(std::string(buffer, 5), "5.87#");
  std::memset(buffer, '#', sizeof buffer);
  mdfGetKorvelVersion(buffer, 20);
  EXPECT_STREQ(buffer, "5.87 (2017-06-27)");  // a longer buffer is padded with zeros
  EXPECT_EQ(buffer[19], '\0');
  EXPECT_EQ(buffer[20], '#');
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
  EXPECT_EQ(korvel::state().context_depth, 3);
  EXPECT_EQ(mdfContextClose(), 0);
  EXPECT_EQ(korvel::state().context_depth, 2);
  EXPECT_EQ(closed, (std::vector<uint16_t>{3}));
  EXPECT_EQ(mdfClose(), 0);
  EXPECT_EQ(korvel::state().context_depth, 0);
  EXPECT_EQ(closed, (std::vector<uint16_t>{3, 2, 1}));

  // Closed: a context open initialises, and closing depth 1 is mdfClose.
  EXPECT_EQ(mdfContextClose(), 0);
  EXPECT_EQ(mdfContextOpen(), 0);
  EXPECT_EQ(korvel::state().context_depth, 1);
  EXPECT_EQ(mdfContextClose(), 0);
  EXPECT_EQ(korvel::state().context_depth, 0);
  EXPECT_EQ(closed, (std::vector<uint16_t>{3, 2, 1, 1}));
}

TEST_F(Frame, TaggedMemory) {
  auto* p = static_cast<uint8_t*>(mdfMalloc(100));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
  uint32_t tag;
  std::memcpy(&tag, p - 4, 4);
  EXPECT_EQ(tag, 20490u);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(p[i], 0);
  mdfFree(p);
  EXPECT_EQ(mdfGetErrorCode(), 0);

  // A block whose tag is damaged is refused with an internal error and left alone.
  auto* q = static_cast<uint8_t*>(mdfMalloc(8));
  q[-1] ^= 0xFF;
  mdfFree(q);
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_FATAL);
  EXPECT_STREQ(mdfGetErrorText(), "fatal error Internal Error 1-KORVEL-63\n\n");
  q[-1] ^= 0xFF;
  mdfFree(q);
}

TEST_F(Frame, AssertionTextCarriesDepthUnitAndLine) {
  mdfContextOpen();
  EXPECT_EQ(mdfAssertFailed("BNODE", 42), MDF_ERR_FATAL);
  EXPECT_STREQ(korvel::state().assert_text, "Internal Error 2-BNODE-42\n");
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_FATAL);
}

TEST_F(Frame, CoreLeftIsClamped) {
  const int32_t left = mdfCoreLeft();
  EXPECT_GE(left, 16777216);
  EXPECT_LE(left, 134217728);
  EXPECT_EQ(mdfSetOutputFloatFormat(3), 0);
  EXPECT_EQ(korvel::state().output_float_format, 3);
}

// Message text files: the caller's file first, then KORVEL.TXT in the current directory.
TEST_F(Frame, ModulePathIsFilledAtLoadAndByLibMain) {
  const std::string at_load = korvel::module_path();
  EXPECT_FALSE(at_load.empty());
  EXPECT_TRUE(std::filesystem::path(at_load).is_absolute()) << at_load;
  std::memset(korvel::module_path(), 'x', 255);
  EXPECT_EQ(LibMain(nullptr, 1, 1, nullptr), 1);
  EXPECT_EQ(std::string(korvel::module_path()), at_load);
}

class MessageTexts : public Frame {
 protected:
  void SetUp() override {
    Frame::SetUp();
    old_dir_ = std::filesystem::current_path();
    dir_ = mdftest::scratch_dir("korvel_texts");
    std::filesystem::current_path(dir_);
  }
  void TearDown() override {
    mdfSetUsrTextFile("");
    std::filesystem::current_path(old_dir_);
    std::filesystem::remove_all(dir_);
    Frame::TearDown();
  }
  static void write(const std::string& name, const std::string& content) {
    std::ofstream(name, std::ios::binary) << content;
  }
  std::filesystem::path old_dir_, dir_;
};

TEST_F(MessageTexts, LookupOrderAndDefault) {
  EXPECT_STREQ(mdfGetTextStrF(-1001), "[KORVEL] Error Nr.: -1001");
  write("KORVEL.TXT", "no number here\n1001: group not found\n  -1001:bad handle\n5:five\r\n");
  write("user.txt", "# user texts\n5:user five\n1001\n");
  EXPECT_STREQ(mdfGetTextStrF(1001), " group not found");
  EXPECT_STREQ(mdfGetTextStrF(-1001), "bad handle");
  EXPECT_STREQ(mdfGetTextStrF(5), "five");
  EXPECT_EQ(mdfSetUsrTextFile("user.txt"), 0);
  EXPECT_STREQ(mdfGetTextStrF(5), "user five");            // the user file wins
  EXPECT_STREQ(mdfGetTextStrF(1001), " group not found");  // falls back to KORVEL.TXT
  EXPECT_STREQ(mdfGetTextStrF(6), "[KORVEL] Error Nr.: 6");
  mdfSetUsrTextFile("missing.txt");
  EXPECT_STREQ(mdfGetTextStrF(5), "five");
}

TEST_F(MessageTexts, ShippedFileHoldsTheBuiltInTexts) {
  mdfSetUsrTextFile(KORVEL_TEXT_FILE);
  int checked = 0;
  for (int code = -2100; code <= 1100; ++code) {
    const char* builtin = mdfGetTextStrD(static_cast<int16_t>(code));
    if (builtin == nullptr || code == 0) continue;
    EXPECT_STREQ(mdfGetTextStrF(static_cast<int16_t>(code)), builtin) << code;
    ++checked;
  }
  EXPECT_EQ(checked, 60);
}

}  // namespace
