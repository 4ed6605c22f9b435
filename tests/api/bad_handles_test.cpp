// Every exported function that takes a file, group or channel handle, called with a null
// handle and with one to memory of another kind: each refuses it with the status of the
// handle's kind, and the status sticks.
#include <gtest/gtest.h>

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
  // The function, the kind of handle it takes and its call; each kind is refused with its own
  // status.
  const int F = MDF_ERR_BAD_FILE;
  const int G = MDF_ERR_BAD_GROUP;
  const int C = MDF_ERR_BAD_CHANNEL;
  // clang-format off
  const std::tuple<const char*, int, std::function<int()>> rows[] = {
      {"mdfFileClose", F, [&] { return int{mdfFileClose(badF)}; }},
      {"mdfFileGetInfo", F, [&] { return int{mdfFileGetInfo(badF, &s, &s, &s, &s, &s, &s, &s)}; }},
      {"mdfFileSetInfo", F, [&] { return int{mdfFileSetInfo(badF, "a", "a", "a", "a", "a", "a", "a")}; }},
      {"mdfFileGetDate", F, [&] { return int{mdfFileGetDate(badF, &s)}; }},
      {"mdfFileGetTime", F, [&] { return int{mdfFileGetTime(badF, &s)}; }},
      {"mdfFileGetText", F, [&] { return int{mdfFileGetText(badF, &s)}; }},
      {"mdfFileGetName", F, [&] { return int{mdfFileGetName(badF, &s)}; }},
      {"mdfFileGetDivision", F, [&] { return int{mdfFileGetDivision(badF, &s)}; }},
      {"mdfFileGetProject", F, [&] { return int{mdfFileGetProject(badF, &s)}; }},
      {"mdfFileGetSubject", F, [&] { return int{mdfFileGetSubject(badF, &s)}; }},
      {"mdfFileSetDate", F, [&] { return int{mdfFileSetDate(badF, "a")}; }},
      {"mdfFileSetTime", F, [&] { return int{mdfFileSetTime(badF, "a")}; }},
      {"mdfFileSetText", F, [&] { return int{mdfFileSetText(badF, "a")}; }},
      {"mdfFileSetName", F, [&] { return int{mdfFileSetName(badF, "a")}; }},
      {"mdfFileSetDivision", F, [&] { return int{mdfFileSetDivision(badF, "a")}; }},
      {"mdfFileSetProject", F, [&] { return int{mdfFileSetProject(badF, "a")}; }},
      {"mdfFileSetSubject", F, [&] { return int{mdfFileSetSubject(badF, "a")}; }},
      {"mdfFileGroups", F, [&] { return int{mdfFileGroups(&u16, badF)}; }},
      {"mdfFileChannels", F, [&] { return int{mdfFileChannels(&u32, badF)}; }},
      {"mdfFileIsSort", F, [&] { return int{mdfFileIsSort(badF)}; }},
      {"mdfGrpOpen", F, [&] { return int{mdfGrpOpen(&g, badF, 1, 1)}; }},
      {"mdfGrpClose", G, [&] { return int{mdfGrpClose(badG)}; }},
      {"mdfGrpDelete", F, [&] { return int{mdfGrpDelete(badF, 1)}; }},
      {"mdfGrpGetFirst", F, [&] { return int{mdfGrpGetFirst(&g, badF)}; }},
      {"mdfGrpChannels", G, [&] { return int{mdfGrpChannels(&u16, badG)}; }},
      {"mdfGrpRecords", G, [&] { return int{mdfGrpRecords(&u32, badG)}; }},
      {"mdfGrpTell", G, [&] { return int{mdfGrpTell(&u32, badG)}; }},
      {"mdfGrpSeek", G, [&] { return int{mdfGrpSeek(badG, 1, 1)}; }},
      {"mdfGrpWrite", G, [&] { return int{mdfGrpWrite(badG)}; }},
      {"mdfGrpWriteAppend", G, [&] { return int{mdfGrpWriteAppend(badG)}; }},
      {"mdfGrpBuffer", G, [&] { return int{mdfGrpBuffer(&bp, badG)}; }},
      {"mdfGrpChnOpen", F, [&] { return int{mdfGrpChnOpen(&ch, &g, badF, 1, 1)}; }},
      {"mdfGrpChnOpenName", F, [&] { return int{mdfGrpChnOpenName(&ch, &g, badF, "a", 1)}; }},
      {"mdfGrpGetTime", G, [&] { return int{mdfGrpGetTime(d, badG)}; }},
      {"mdfGrpSetTime", G, [&] { return int{mdfGrpSetTime(badG, 1)}; }},
      {"mdfGrpSeekTime", G, [&] { return int{mdfGrpSeekTime(badG, 1, 1)}; }},
      {"mdfGrpGetText", G, [&] { return int{mdfGrpGetText(badG, &s)}; }},
      {"mdfGrpSetText", G, [&] { return int{mdfGrpSetText(badG, "a")}; }},
      {"mdfGrpGetTrigger", G, [&] { return int{mdfGrpGetTrigger(badG, &s, &u16, &vp)}; }},
      {"mdfGrpSetTrigger", G, [&] { return int{mdfGrpSetTrigger(badG, "a", 1, d)}; }},
      {"mdfChnOpen", G, [&] { return int{mdfChnOpen(&ch, badG, 1)}; }},
      {"mdfChnOpenName", G, [&] { return int{mdfChnOpenName(&ch, badG, "a")}; }},
      {"mdfChnOpenType", G, [&] { return int{mdfChnOpenType(&ch, badG, 1)}; }},
      {"mdfChnOpenTime", G, [&] { return int{mdfChnOpenTime(&ch, badG)}; }},
      {"mdfChnCreate", G, [&] { return int{mdfChnCreate(&ch, badG, 1, 1, 1, "a")}; }},
      {"mdfChnDuplicate", C, [&] { return int{mdfChnDuplicate(&ch, nullptr, badC)}; }},
      {"mdfChnClose", C, [&] { return int{mdfChnClose(badC)}; }},
      {"mdfChnGetFirst", G, [&] { return int{mdfChnGetFirst(badG, &ch)}; }},
      {"mdfChnGetInfo", C, [&] { return int{mdfChnGetInfo(badC, &u16, &u16, &u16, &s, &s, &s)}; }},
      {"mdfChnGetType", C, [&] { return int{mdfChnGetType(badC, &u16)}; }},
      {"mdfChnGetBits", C, [&] { return int{mdfChnGetBits(badC, &u16)}; }},
      {"mdfChnGetValueType", C, [&] { return int{mdfChnGetValueType(badC, &u16)}; }},
      {"mdfChnGetName", C, [&] { return int{mdfChnGetName(badC, &s)}; }},
      {"mdfChnGetDesc", C, [&] { return int{mdfChnGetDesc(badC, &s)}; }},
      {"mdfChnGetText", C, [&] { return int{mdfChnGetText(badC, &s)}; }},
      {"mdfChnSetInfo", C, [&] { return int{mdfChnSetInfo(badC, "a", "a", "a")}; }},
      {"mdfChnSetName", C, [&] { return int{mdfChnSetName(badC, "a")}; }},
      {"mdfChnSetDesc", C, [&] { return int{mdfChnSetDesc(badC, "a")}; }},
      {"mdfChnSetText", C, [&] { return int{mdfChnSetText(badC, "a")}; }},
      {"mdfChnGetInfoExt", C, [&] { return int{mdfChnGetInfoExt(badC, &u16, &s, &s)}; }},
      {"mdfChnSetInfoExt", C, [&] { return int{mdfChnSetInfoExt(badC, 1, "a", "a")}; }},
      {"mdfChnGetLongName", C, [&] { return int{mdfChnGetLongName(badC, &s)}; }},
      {"mdfChnGetDisplayName", C, [&] { return int{mdfChnGetDisplayName(badC, &s)}; }},
      {"mdfChnSetLongName", C, [&] { return int{mdfChnSetLongName(badC, "a")}; }},
      {"mdfChnSetDisplayName", C, [&] { return int{mdfChnSetDisplayName(badC, "a")}; }},
      {"mdfChnGetRaster", C, [&] { return int{mdfChnGetRaster(badC, d)}; }},
      {"mdfChnSetRaster", C, [&] { return int{mdfChnSetRaster(badC, 1)}; }},
      {"mdfChnGetBitAndByteOffset", C, [&] { return int{mdfChnGetBitAndByteOffset(badC, bytes, &u32)}; }},
      {"mdfChnGetHexRange", C, [&] { return int{mdfChnGetHexRange(d, d, badC)}; }},
      {"mdfChnSetHexRange", C, [&] { return int{mdfChnSetHexRange(badC, 1, 1)}; }},
      {"mdfChnGetPhyRange", C, [&] { return int{mdfChnGetPhyRange(d, d, badC)}; }},
      {"mdfChnSetPhyRange", C, [&] { return int{mdfChnSetPhyRange(badC, 1, 1)}; }},
      {"mdfChnGetData", C, [&] { return int{mdfChnGetData(bytes, &u32, badC, 1)}; }},
      {"mdfChnGetHex", C, [&] { return int{mdfChnGetHex(d, badC, 1)}; }},
      {"mdfChnGetHexInt", C, [&] { return int{mdfChnGetHexInt(u64, badC, 1)}; }},
      {"mdfChnGetPhy", C, [&] { return int{mdfChnGetPhy(d, badC, 1)}; }},
      {"mdfChnSetData", C, [&] { return int{mdfChnSetData(badC, bytes, 1)}; }},
      {"mdfChnSetHex", C, [&] { return int{mdfChnSetHex(badC, 1)}; }},
      {"mdfChnSetHexInt", C, [&] { return int{mdfChnSetHexInt(badC, 1)}; }},
      {"mdfChnSetPhy", C, [&] { return int{mdfChnSetPhy(badC, 1)}; }},
      {"mdfChnReadData", C, [&] { return int{mdfChnReadData(bytes, &u32, badC)}; }},
      {"mdfChnReadHex", C, [&] { return int{mdfChnReadHex(d, badC)}; }},
      {"mdfChnReadHexInt", C, [&] { return int{mdfChnReadHexInt(u64, badC)}; }},
      {"mdfChnReadPhy", C, [&] { return int{mdfChnReadPhy(d, badC)}; }},
      {"mdfChnWriteData", C, [&] { return int{mdfChnWriteData(badC, bytes, 1)}; }},
      {"mdfChnWriteHex", C, [&] { return int{mdfChnWriteHex(badC, 1)}; }},
      {"mdfChnWriteHexInt", C, [&] { return int{mdfChnWriteHexInt(badC, 1)}; }},
      {"mdfChnWritePhy", C, [&] { return int{mdfChnWritePhy(badC, 1)}; }},
      {"mdfChnGetForm", C, [&] { return int{mdfChnGetForm(badC, &u16, &s, &vp)}; }},
      {"mdfChnGetFormTab", C, [&] { return int{mdfChnGetFormTab(badC, &u16, &s, &u16p, &vp)}; }},
      {"mdfChnGetFormVTab", C, [&] { return int{mdfChnGetFormVTab(badC, &u16, &s, &u16p, &vp)}; }},
      {"mdfChnGetFormVTabR", C, [&] { return int{mdfChnGetFormVTabR(badC, &u16, &s, d, d, &u16p, &vp)}; }},
      {"mdfChnGetFormVTabText", C, [&] { return int{mdfChnGetFormVTabText(badC, 1, &s)}; }},
      {"mdfChnSetForm", C, [&] { return int{mdfChnSetForm(badC, 1, "a", 1.0, 2.0)}; }},
      {"mdfChnSetFormLin", C, [&] { return int{mdfChnSetFormLin(badC, "a", 1, 1)}; }},
      {"mdfChnSetFormPol", C, [&] { return int{mdfChnSetFormPol(badC, "a", 1, 1, 1, 1, 1, 1)}; }},
      {"mdfChnSetFormExp", C, [&] { return int{mdfChnSetFormExp(badC, "a", 1, 1, 1, 1, 1, 1, 1)}; }},
      {"mdfChnSetFormLog", C, [&] { return int{mdfChnSetFormLog(badC, "a", 1, 1, 1, 1, 1, 1, 1)}; }},
      {"mdfChnSetFormTab", C, [&] { return int{mdfChnSetFormTab(badC, 1, "a", 1, d)}; }},
      {"mdfChnSetModuleInfo", C, [&] { return int{mdfChnSetModuleInfo(badC, 1, &info)}; }},
      {"mdfChnGetModuleInfo", C, [&] { return int{mdfChnGetModuleInfo(badC, &u16, &infop)}; }},
      {"mdfChnGetModuleType", C, [&] { return int{mdfChnGetModuleType(badC, &u16)}; }},
      {"mdfChnSetGenInfo", C, [&] { return int{mdfChnSetGenInfo(badC, "a")}; }},
      {"mdfChnSetAimInfo", C, [&] { return int{mdfChnSetAimInfo(badC, 1, 1, 1, 1)}; }},
      {"mdfChnSetDimInfo", C, [&] { return int{mdfChnSetDimInfo(badC, 1, 1, "a", "a")}; }},
      {"mdfChnSetCanInfo", C, [&] { return int{mdfChnSetCanInfo(badC, 1, 1, "a", "a", 1)}; }},
      {"mdfChnSetQ24Info", C, [&] { return int{mdfChnSetQ24Info(badC, "a", 1, 1)}; }},
      {"mdfChnSetLa1Info", C, [&] { return int{mdfChnSetLa1Info(badC, "a", 1, 1)}; }},
      {"mdfChnSetAcanInfo", C, [&] { return int{mdfChnSetAcanInfo(badC, 1, 1, "a", "a", 1, 1)}; }},
      {"mdfChnSetEtkInfo", C, [&] { return int{mdfChnSetEtkInfo(badC, 1, 1, "a", "a")}; }},
      {"mdfChnSetLa2Info", C, [&] { return int{mdfChnSetLa2Info(badC, "a", 1, 1)}; }},
      {"mdfChnSetDm2Info", C, [&] { return int{mdfChnSetDm2Info(badC, 1, 1, "a", "a")}; }},
      {"mdfChnSetThsInfo", C, [&] { return int{mdfChnSetThsInfo(badC, "a", 1, 1)}; }},
      {"mdfChnSetAdsInfo", C, [&] { return int{mdfChnSetAdsInfo(badC, "a", 1, 1)}; }},
      {"mdfChnSetQp1Info", C, [&] { return int{mdfChnSetQp1Info(badC, 1, 1, "a", "a")}; }},
      {"mdfChnSetQp2Info", C, [&] { return int{mdfChnSetQp2Info(badC, 1, 1, "a", "a")}; }},
      {"mdfChnSetQa1Info", C, [&] { return int{mdfChnSetQa1Info(badC, 1, 1, 1, 1)}; }},
      {"mdfChnSetQncInfo", C, [&] { return int{mdfChnSetQncInfo(badC, 1, 1, "a", "a", 1)}; }},
      {"mdfChnSetQnaInfo", C, [&] { return int{mdfChnSetQnaInfo(badC, "a")}; }},
      {"mdfChnSetQnvInfo", C, [&] { return int{mdfChnSetQnvInfo(badC, "a")}; }},
      {"mdfChnSetSscInfo", C, [&] { return int{mdfChnSetSscInfo(badC, 1, 1, "a", "a")}; }},
      {"mdfChnSetQcnInfo", C, [&] { return int{mdfChnSetQcnInfo(badC, 1, 1, "a", "a")}; }},
      {"mdfChnGetGenInfo", C, [&] { return int{mdfChnGetGenInfo(badC, &infop)}; }},
      {"mdfChnGetAimInfo", C, [&] { return int{mdfChnGetAimInfo(badC, &u16, &u16, d, u64)}; }},
      {"mdfChnGetDimInfo", C, [&] { return int{mdfChnGetDimInfo(badC, &u16, &u32, &s, &s)}; }},
      {"mdfChnGetCanInfo", C, [&] { return int{mdfChnGetCanInfo(badC, &u16, &u16, &s, &s, &u16)}; }},
      {"mdfChnGetAcanInfo", C, [&] { return int{mdfChnGetAcanInfo(badC, &u16, &u32, &s, &s, &u16, &u16)}; }},
      {"mdfChnGetSmbInfo", C, [&] { return int{mdfChnGetSmbInfo(badC, &s, &u16, &u16)}; }},
      {"mdfChnGetQcnInfo", C, [&] { return int{mdfChnGetQcnInfo(badC, &u32, &u32, &s, &s)}; }},
      {"mdfChnReadPhyArray", C, [&] { return int{mdfChnReadPhyArray(d, &u32, badC, 1, 1)}; }},
      {"mdfChnReadHexArray", C, [&] { return int{mdfChnReadHexArray(d, &u32, badC, 1, 1)}; }},
      {"mdfChnReadHexIntArray", C, [&] { return int{mdfChnReadHexIntArray(u64, &u32, badC, 1, 1)}; }},
      {"mdfGrpReadTimeArray", G, [&] { return int{mdfGrpReadTimeArray(d, &u32, badG, 1, 1)}; }},
      {"mdfChnReadBytesArray", C, [&] { return int{mdfChnReadBytesArray(bytes, 1, &u32, badC, 1, 1)}; }},
      {"mdfGrpOpenChannels", G, [&] { channelnode* out[1]; return int{mdfGrpOpenChannels(out, badG, 1, 1)}; }},
      {"mdfChnGetInfoArrays", C, [&] { char names[33]; return int{mdfChnGetInfoArrays(&u16, &u16, &u16, names, &badC, 1)}; }},
      {"mdfChnReadPhyArrays", C, [&] { return int{mdfChnReadPhyArrays(d, &u32, &badC, 1, 1, 1)}; }},
  };
  // clang-format on
  for (const auto& [name, want, call] : rows) {
    for (void* handle : {static_cast<void*>(nullptr), static_cast<void*>(junk)}) {
      SCOPED_TRACE(std::string(name) + (handle == nullptr ? " null" : " junk"));
      mdfClose();
      ASSERT_EQ(mdfOpen(nullptr), 0);
      badF = static_cast<mdf_file*>(handle);
      badG = static_cast<mdf_group*>(handle);
      badC = static_cast<channelnode*>(handle);
      // Closing nothing is no fault; the buffer of no group is no buffer, and no fault.
      const std::string n = name;
      const bool quiet =
          n == "mdfGrpBuffer" || (handle == nullptr && (n == "mdfFileClose" || n == "mdfChnClose"));
      EXPECT_EQ(call(), quiet ? 0 : want);
      EXPECT_EQ(mdfGetErrorCode(), quiet ? 0 : want);
    }
  }
  mdfClose();
}

}  // namespace
