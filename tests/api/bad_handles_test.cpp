// Every exported function that takes a file, group or channel handle, called with a null
// handle and with one to memory of another kind: each refuses it with the status of the
// handle's kind, and the status sticks.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <tuple>

#include "korvel.h"

namespace {

TEST(BadHandles, EveryFunctionRefusesThemAndTheStatusSticks) {
  alignas(8) static uint8_t junk[256] = {};  // large enough for any handle, tagged as none
  mdf_file* badF = nullptr;
  mdf_group* badG = nullptr;
  channelnode* badC = nullptr;
  const char* s = nullptr;
  uint16_t u16 = 0;
  uint32_t u32 = 0;
  uint64_t u64[4] = {};
  double d[4] = {};
  uint8_t bytes[8] = {};
  uint8_t* bp = nullptr;
  const void* vp = nullptr;
  const uint16_t* u16p = nullptr;
  ce_info info = {};
  const ce_info* infop = nullptr;
  channelnode* ch = nullptr;
  mdf_group* g = nullptr;
  char names[33] = {};
  // Each kind of handle is refused with its own status.
  const int F = MDF_ERR_BAD_FILE;
  const int G = MDF_ERR_BAD_GROUP;
  const int C = MDF_ERR_BAD_CHANNEL;
  // The call's text (its name first), the kind of handle and the call.
  // clang-format off
#define ROW(kind, call) {#call, kind, [&] { return int{call}; }}
  // clang-format on
  const std::tuple<const char*, int, std::function<int()>> rows[] = {
      ROW(F, mdfFileClose(badF)),
      ROW(F, mdfFileGetInfo(badF, &s, &s, &s, &s, &s, &s, &s)),
      ROW(F, mdfFileSetInfo(badF, "a", "a", "a", "a", "a", "a", "a")),
      ROW(F, mdfFileGetDate(badF, &s)),
      ROW(F, mdfFileGetTime(badF, &s)),
      ROW(F, mdfFileGetText(badF, &s)),
      ROW(F, mdfFileGetName(badF, &s)),
      ROW(F, mdfFileGetDivision(badF, &s)),
      ROW(F, mdfFileGetProject(badF, &s)),
      ROW(F, mdfFileGetSubject(badF, &s)),
      ROW(F, mdfFileSetDate(badF, "a")),
      ROW(F, mdfFileSetTime(badF, "a")),
      ROW(F, mdfFileSetText(badF, "a")),
      ROW(F, mdfFileSetName(badF, "a")),
      ROW(F, mdfFileSetDivision(badF, "a")),
      ROW(F, mdfFileSetProject(badF, "a")),
      ROW(F, mdfFileSetSubject(badF, "a")),
      ROW(F, mdfFileGroups(&u16, badF)),
      ROW(F, mdfFileChannels(&u32, badF)),
      ROW(F, mdfFileIsSort(badF)),
      ROW(F, mdfGrpOpen(&g, badF, 1, 1)),
      ROW(G, mdfGrpClose(badG)),
      ROW(F, mdfGrpDelete(badF, 1)),
      ROW(F, mdfGrpGetFirst(&g, badF)),
      ROW(G, mdfGrpChannels(&u16, badG)),
      ROW(G, mdfGrpRecords(&u32, badG)),
      ROW(G, mdfGrpTell(&u32, badG)),
      ROW(G, mdfGrpSeek(badG, 1, 1)),
      ROW(G, mdfGrpWrite(badG)),
      ROW(G, mdfGrpWriteAppend(badG)),
      ROW(G, mdfGrpBuffer(&bp, badG)),
      ROW(F, mdfGrpChnOpen(&ch, &g, badF, 1, 1)),
      ROW(F, mdfGrpChnOpenName(&ch, &g, badF, "a", 1)),
      ROW(G, mdfGrpGetTime(d, badG)),
      ROW(G, mdfGrpSetTime(badG, 1)),
      ROW(G, mdfGrpSeekTime(badG, 1, 1)),
      ROW(G, mdfGrpGetText(badG, &s)),
      ROW(G, mdfGrpSetText(badG, "a")),
      ROW(G, mdfGrpGetTrigger(badG, &s, &u16, &vp)),
      ROW(G, mdfGrpSetTrigger(badG, "a", 1, d)),
      ROW(G, mdfChnOpen(&ch, badG, 1)),
      ROW(G, mdfChnOpenName(&ch, badG, "a")),
      ROW(G, mdfChnOpenType(&ch, badG, 1)),
      ROW(G, mdfChnOpenTime(&ch, badG)),
      ROW(G, mdfChnCreate(&ch, badG, 1, 1, 1, "a")),
      ROW(C, mdfChnDuplicate(&ch, nullptr, badC)),
      ROW(C, mdfChnClose(badC)),
      ROW(G, mdfChnGetFirst(badG, &ch)),
      ROW(C, mdfChnGetInfo(badC, &u16, &u16, &u16, &s, &s, &s)),
      ROW(C, mdfChnGetType(badC, &u16)),
      ROW(C, mdfChnGetBits(badC, &u16)),
      ROW(C, mdfChnGetValueType(badC, &u16)),
      ROW(C, mdfChnGetName(badC, &s)),
      ROW(C, mdfChnGetDesc(badC, &s)),
      ROW(C, mdfChnGetText(badC, &s)),
      ROW(C, mdfChnSetInfo(badC, "a", "a", "a")),
      ROW(C, mdfChnSetName(badC, "a")),
      ROW(C, mdfChnSetDesc(badC, "a")),
      ROW(C, mdfChnSetText(badC, "a")),
      ROW(C, mdfChnGetInfoExt(badC, &u16, &s, &s)),
      ROW(C, mdfChnSetInfoExt(badC, 1, "a", "a")),
      ROW(C, mdfChnGetLongName(badC, &s)),
      ROW(C, mdfChnGetDisplayName(badC, &s)),
      ROW(C, mdfChnSetLongName(badC, "a")),
      ROW(C, mdfChnSetDisplayName(badC, "a")),
      ROW(C, mdfChnGetRaster(badC, d)),
      ROW(C, mdfChnSetRaster(badC, 1)),
      ROW(C, mdfChnGetBitAndByteOffset(badC, bytes, &u32)),
      ROW(C, mdfChnGetHexRange(d, d, badC)),
      ROW(C, mdfChnSetHexRange(badC, 1, 1)),
      ROW(C, mdfChnGetPhyRange(d, d, badC)),
      ROW(C, mdfChnSetPhyRange(badC, 1, 1)),
      ROW(C, mdfChnGetData(bytes, &u32, badC, 1)),
      ROW(C, mdfChnGetHex(d, badC, 1)),
      ROW(C, mdfChnGetHexInt(u64, badC, 1)),
      ROW(C, mdfChnGetPhy(d, badC, 1)),
      ROW(C, mdfChnSetData(badC, bytes, 1)),
      ROW(C, mdfChnSetHex(badC, 1)),
      ROW(C, mdfChnSetHexInt(badC, 1)),
      ROW(C, mdfChnSetPhy(badC, 1)),
      ROW(C, mdfChnReadData(bytes, &u32, badC)),
      ROW(C, mdfChnReadHex(d, badC)),
      ROW(C, mdfChnReadHexInt(u64, badC)),
      ROW(C, mdfChnReadPhy(d, badC)),
      ROW(C, mdfChnWriteData(badC, bytes, 1)),
      ROW(C, mdfChnWriteHex(badC, 1)),
      ROW(C, mdfChnWriteHexInt(badC, 1)),
      ROW(C, mdfChnWritePhy(badC, 1)),
      ROW(C, mdfChnGetForm(badC, &u16, &s, &vp)),
      ROW(C, mdfChnGetFormTab(badC, &u16, &s, &u16p, &vp)),
      ROW(C, mdfChnGetFormVTab(badC, &u16, &s, &u16p, &vp)),
      ROW(C, mdfChnGetFormVTabR(badC, &u16, &s, d, d, &u16p, &vp)),
      ROW(C, mdfChnGetFormVTabText(badC, 1, &s)),
      ROW(C, mdfChnSetForm(badC, 1, "a", 1.0, 2.0)),
      ROW(C, mdfChnSetFormLin(badC, "a", 1, 1)),
      ROW(C, mdfChnSetFormPol(badC, "a", 1, 1, 1, 1, 1, 1)),
      ROW(C, mdfChnSetFormExp(badC, "a", 1, 1, 1, 1, 1, 1, 1)),
      ROW(C, mdfChnSetFormLog(badC, "a", 1, 1, 1, 1, 1, 1, 1)),
      ROW(C, mdfChnSetFormTab(badC, 1, "a", 1, d)),
      ROW(C, mdfChnSetModuleInfo(badC, 1, &info)),
      ROW(C, mdfChnGetModuleInfo(badC, &u16, &infop)),
      ROW(C, mdfChnGetModuleType(badC, &u16)),
      ROW(C, mdfChnSetGenInfo(badC, "a")),
      ROW(C, mdfChnSetAimInfo(badC, 1, 1, 1, 1)),
      ROW(C, mdfChnSetDimInfo(badC, 1, 1, "a", "a")),
      ROW(C, mdfChnSetCanInfo(badC, 1, 1, "a", "a", 1)),
      ROW(C, mdfChnSetQ24Info(badC, "a", 1, 1)),
      ROW(C, mdfChnSetLa1Info(badC, "a", 1, 1)),
      ROW(C, mdfChnSetAcanInfo(badC, 1, 1, "a", "a", 1, 1)),
      ROW(C, mdfChnSetEtkInfo(badC, 1, 1, "a", "a")),
      ROW(C, mdfChnSetLa2Info(badC, "a", 1, 1)),
      ROW(C, mdfChnSetDm2Info(badC, 1, 1, "a", "a")),
      ROW(C, mdfChnSetThsInfo(badC, "a", 1, 1)),
      ROW(C, mdfChnSetAdsInfo(badC, "a", 1, 1)),
      ROW(C, mdfChnSetQp1Info(badC, 1, 1, "a", "a")),
      ROW(C, mdfChnSetQp2Info(badC, 1, 1, "a", "a")),
      ROW(C, mdfChnSetQa1Info(badC, 1, 1, 1, 1)),
      ROW(C, mdfChnSetQncInfo(badC, 1, 1, "a", "a", 1)),
      ROW(C, mdfChnSetQnaInfo(badC, "a")),
      ROW(C, mdfChnSetQnvInfo(badC, "a")),
      ROW(C, mdfChnSetSscInfo(badC, 1, 1, "a", "a")),
      ROW(C, mdfChnSetQcnInfo(badC, 1, 1, "a", "a")),
      ROW(C, mdfChnGetGenInfo(badC, &infop)),
      ROW(C, mdfChnGetAimInfo(badC, &u16, &u16, d, u64)),
      ROW(C, mdfChnGetDimInfo(badC, &u16, &u32, &s, &s)),
      ROW(C, mdfChnGetCanInfo(badC, &u16, &u16, &s, &s, &u16)),
      ROW(C, mdfChnGetAcanInfo(badC, &u16, &u32, &s, &s, &u16, &u16)),
      ROW(C, mdfChnGetSmbInfo(badC, &s, &u16, &u16)),
      ROW(C, mdfChnGetQcnInfo(badC, &u32, &u32, &s, &s)),
      ROW(C, mdfChnReadPhyArray(d, &u32, badC, 1, 1)),
      ROW(C, mdfChnReadHexArray(d, &u32, badC, 1, 1)),
      ROW(C, mdfChnReadHexIntArray(u64, &u32, badC, 1, 1)),
      ROW(G, mdfGrpReadTimeArray(d, &u32, badG, 1, 1)),
      ROW(C, mdfChnReadBytesArray(bytes, 1, &u32, badC, 1, 1)),
      ROW(G, mdfGrpOpenChannels(&ch, badG, 1, 1)),
      ROW(C, mdfChnGetInfoArrays(&u16, &u16, &u16, names, &badC, 1)),
      ROW(C, mdfChnReadPhyArrays(d, &u32, &badC, 1, 1, 1)),
  };
#undef ROW
  for (const auto& [text, want, call] : rows) {
    const std::string name(text, std::strcspn(text, "("));
    for (void* handle : {static_cast<void*>(nullptr), static_cast<void*>(junk)}) {
      SCOPED_TRACE(name + (handle == nullptr ? " null" : " junk"));
      mdfClose();
      ASSERT_EQ(mdfOpen(nullptr), 0);
      badF = static_cast<mdf_file*>(handle);
      badG = static_cast<mdf_group*>(handle);
      badC = static_cast<channelnode*>(handle);
      // Closing nothing is no fault; the buffer of no group is no buffer, and no fault.
      const bool quiet = name == "mdfGrpBuffer" ||
                         (handle == nullptr && (name == "mdfFileClose" || name == "mdfChnClose"));
      EXPECT_EQ(call(), quiet ? 0 : want);
      EXPECT_EQ(mdfGetErrorCode(), quiet ? 0 : want);
    }
  }
  mdfClose();
}

}  // namespace
