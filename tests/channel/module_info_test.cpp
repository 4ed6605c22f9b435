// Module information through the C interface: every module type set through its typed setter,
// read back from the file through the typed and the generic getters and compared byte by byte
// with records laid out here and read by the test-side reader; refusals; extension blocks of
// other sizes; module blocks set in files open for modifying.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/mdf_reader.h"
#include "support/scratch.h"

namespace {

using Ch = channelnode*;
using Bytes = std::vector<uint8_t>;

// The arguments of a typed module function, each kind taken in call order: the k-th 16-bit
// argument is n[k], the k-th 32-bit one u[k], the k-th text t[k].
struct Fields {
  uint16_t n[3] = {};
  uint32_t u[2] = {};
  double r = 0;
  uint64_t q = 0;
  const char* t[2] = {};
};
using Set = std::function<int16_t(Ch, const Fields&)>;

// clang-format off
template <class F> Set text(F f) { return [f](Ch c, const Fields& v) { return f(c, v.t[0]); }; }
template <class F> Set analog(F f) {
  return [f](Ch c, const Fields& v) { return f(c, v.n[0], v.n[1], v.r, v.q); };
}
template <class F> Set device(F f) {
  return [f](Ch c, const Fields& v) { return f(c, v.n[0], v.u[0], v.t[0], v.t[1]); };
}
template <class F> Set bus(F f) {
  return [f](Ch c, const Fields& v) { return f(c, v.n[0], v.n[1], v.t[0], v.t[1], v.n[2]); };
}
template <class F> Set pair(F f) {
  return [f](Ch c, const Fields& v) { return f(c, v.t[0], v.n[0], v.n[1]); };
}

// Each layout as written down here: per argument in call order its record offset, its kind
// (n 16-bit, u 32-bit, q 64-bit, r double, t text) and a text's width; its getter; its types.
struct LayoutCase {
  const char* places;
  std::function<int16_t(Ch, Fields&)> get;
  std::vector<std::pair<uint16_t, Set>> types;
};
const std::vector<LayoutCase> kLayouts = {
    {"0t32", [](Ch c, Fields& v) {
       const ce_info* info = nullptr;
       const int16_t st = mdfChnGetGenInfo(c, &info);
       v.t[0] = info != nullptr ? info->text.text : nullptr;
       return st;
     },
     {{MDF_CE_GEN, text(mdfChnSetGenInfo)}, {MDF_CE_QNA, text(mdfChnSetQnaInfo)},
      {MDF_CE_QNV, text(mdfChnSetQnvInfo)}}},
    {"18n 0n 10r 2q",
     [](Ch c, Fields& v) { return mdfChnGetAimInfo(c, &v.n[0], &v.n[1], &v.r, &v.q); },
     {{MDF_CE_AIM, analog(mdfChnSetAimInfo)}, {MDF_CE_QA1, analog(mdfChnSetQa1Info)}}},
    {"0n 2u 6t80 86t32",
     [](Ch c, Fields& v) { return mdfChnGetDimInfo(c, &v.n[0], &v.u[0], &v.t[0], &v.t[1]); },
     {{MDF_CE_DIM, device(mdfChnSetDimInfo)}, {MDF_CE_ETK, device(mdfChnSetEtkInfo)},
      {MDF_CE_DIM2, device(mdfChnSetDm2Info)}, {MDF_CE_QPSI1, device(mdfChnSetQp1Info)},
      {MDF_CE_QPSI2, device(mdfChnSetQp2Info)}, {MDF_CE_SSC, device(mdfChnSetSscInfo)}}},
    {"0n 2u 6t80 86t32 118n 120n", [](Ch c, Fields& v) {
       return mdfChnGetAcanInfo(c, &v.n[0], &v.u[0], &v.t[0], &v.t[1], &v.n[1], &v.n[2]);
     },
     {{MDF_CE_ACAN, [](Ch c, const Fields& v) {
        return mdfChnSetAcanInfo(c, v.n[0], v.u[0], v.t[0], v.t[1], v.n[1], v.n[2]); }}}},
    {"0n 2n 4t20 24t32 56n", [](Ch c, Fields& v) {
       return mdfChnGetCanInfo(c, &v.n[0], &v.n[1], &v.t[0], &v.t[1], &v.n[2]);
     },
     {{MDF_CE_CANIM, bus(mdfChnSetCanInfo)}, {MDF_CE_QCAN, bus(mdfChnSetQncInfo)}}},
    {"0t32 32n 34n",
     [](Ch c, Fields& v) { return mdfChnGetSmbInfo(c, &v.t[0], &v.n[0], &v.n[1]); },
     {{MDF_CE_Q24, pair(mdfChnSetQ24Info)}, {MDF_CE_LA1, pair(mdfChnSetLa1Info)},
      {MDF_CE_LA2, pair(mdfChnSetLa2Info)}, {MDF_CE_THS, pair(mdfChnSetThsInfo)},
      {MDF_CE_ADS, pair(mdfChnSetAdsInfo)}}},
    {"0u 4u 8t36 44t36",
     [](Ch c, Fields& v) { return mdfChnGetQcnInfo(c, &v.u[0], &v.u[1], &v.t[0], &v.t[1]); },
     {{MDF_CE_QCN, [](Ch c, const Fields& v) {
        return mdfChnSetQcnInfo(c, v.u[0], v.u[1], v.t[0], v.t[1]); }}}},
};
// clang-format on

// The record of a layout holding the fields, laid out by its places; texts are cut at their width.
Bytes record_of(const char* places, const Fields& v) {
  mdftest::Image r;
  r.bytes.resize(128);
  size_t n = 0, u = 0, t = 0;
  for (char* p = const_cast<char*>(places); *p != '\0';) {
    const auto at = std::strtoul(p, &p, 10);
    const char kind = *p++;
    const auto width = kind == 't' ? std::strtoul(p, &p, 10) : 0;
    if (kind == 'n') r.patch_u16(at, v.n[n++]);
    if (kind == 'u') r.patch_u32(at, v.u[u++]);
    if (kind == 'q') r.patch_u64(at, v.q);
    if (kind == 'r') r.patch_f64(at, v.r);
    if (kind == 't' && v.t[t] != nullptr)
      r.patch_chars(at, width, {v.t[t], strnlen(v.t[t], width)});
    t += kind == 't';
  }
  return r.bytes;
}

using ModuleInfo = mdftest::Session;
using mdftest::open_channel;

// Every channel of a file: the generic getter hands out 128 bytes, the block's record followed
// by zeros, or 1009 where the test-side reader found no extension block. Returns the blocks.
size_t check_extensions(const std::string& file) {
  const auto read = mdftest::read_file(file);
  EXPECT_TRUE(read.ok()) << read.error_text();
  size_t found = 0;
  mdf_file* f = nullptr;
  EXPECT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  const auto groups = read.channel_groups();
  for (size_t gi = 0; gi < groups.size(); ++gi) {
    mdf_group* g = mdftest::open_group(f, static_cast<uint16_t>(gi + 1));
    for (size_t ci = 0; ci < groups[gi]->channels.size(); ++ci) {
      const auto& ext = groups[gi]->channels[ci].extension;
      uint16_t type = 0;
      const ce_info* info = nullptr;
      EXPECT_EQ(mdfChnGetModuleInfo(open_channel(g, ci + 1), &type, &info), ext ? 0 : 1009);
      if (!ext || info == nullptr) continue;
      ++found;
      Bytes want = ext->record;
      want.resize(128);
      EXPECT_EQ(std::make_tuple(type, Bytes(info->bytes, info->bytes + 128)),
                std::make_tuple(ext->type, want));
    }
    EXPECT_EQ(mdfGrpClose(g), 0);
  }
  EXPECT_EQ(mdfFileClose(f), 0);
  return found;
}

TEST_F(ModuleInfo, EveryTypeGoesThroughTheFileAndBackByItsLayout) {
  std::vector<std::tuple<uint16_t, size_t, Bytes>> rows;  // type, layout, record
  std::vector<std::string> texts;
  texts.reserve(40);
  mdf_group* g = open(path("m.mdf"), MDF_OPEN_CREATE, MDF_OPEN_CREATE);
  Ch ch = nullptr;
  for (size_t l = 0; l < kLayouts.size(); ++l) {
    for (const auto& [type, set] : kLayouts[l].types) {
      // Values of this type; texts of odd types fill their fields (the widest is 80).
      Fields v{{uint16_t(0xA100 + type), uint16_t(0xFFFF - type), uint16_t(0x0102 * type)},
               {0x89ABCD00u + type, 0x01234567u * type},
               -1.25e-3 * type,
               0xFEDCBA9876543210ull ^ type};
      for (int i = 0; i < 2; ++i) {
        texts.push_back(type % 2 ? std::string(80, char('A' + type + i)) : "t" + std::to_string(i));
        v.t[i] = texts.back().c_str();
      }
      rows.emplace_back(type, l, record_of(kLayouts[l].places, v));
      ASSERT_EQ(mdfChnCreate(&ch, g, 0, 8, MDF_DT_UINT, ("m" + std::to_string(type)).c_str()), 0);
      ASSERT_EQ(mdfChnSetGenInfo(ch, "replaced"), 0);
      ASSERT_EQ(set(ch, v), 0) << type;
    }
  }
  ASSERT_EQ(rows.size(), 20u);
  // A channel without a block: 1009 with type 65535 and no record, the outs of a typed getter
  // untouched.
  ASSERT_EQ(mdfChnCreate(&ch, g, 0, 8, MDF_DT_UINT, "none"), 0);
  uint16_t type = 7, n = 5, type2 = 7;
  const ce_info* info = reinterpret_cast<const ce_info*>(&type);
  EXPECT_EQ(std::make_tuple(mdfChnGetModuleInfo(ch, &type, &info), mdfChnGetModuleType(ch, &type2),
                            mdfChnGetSmbInfo(ch, nullptr, &n, nullptr)),
            std::make_tuple(MDF_NO_MODULE_INFO, MDF_NO_MODULE_INFO, MDF_NO_MODULE_INFO));
  EXPECT_EQ(std::make_tuple(type, info, type2, n), std::make_tuple(65535, nullptr, 65535, 5));
  // A whole record of a type of no layout: the last 6 bytes lie beyond the block.
  ce_info given;
  std::memset(&given, 0xA5, sizeof given);
  ASSERT_EQ(mdfChnSetModuleInfo(ch, 999, &given), 0);
  ASSERT_EQ(mdfChnGetModuleInfo(ch, &type, &info), 0);
  EXPECT_EQ(std::make_tuple(type, Bytes(info->bytes, info->bytes + 122), info->bytes[122]),
            std::make_tuple(999, Bytes(122, 0xA5), 0));
  ASSERT_EQ(mdfFileClose(f_), 0);

  EXPECT_EQ(check_extensions(path("m.mdf")), 21u);
  const auto read = mdftest::read_file(path("m.mdf"));
  g = open(path("m.mdf"), MDF_OPEN_READ);
  for (size_t i = 0; i < rows.size(); ++i) {
    const auto& [row_type, layout, record] = rows[i];
    SCOPED_TRACE(row_type);
    // On disk: a block of 128 bytes holding the record's first 122 bytes.
    const auto& ext = read.channel_groups().at(0)->channels.at(i).extension;
    ASSERT_TRUE(ext.has_value());
    EXPECT_EQ(std::make_tuple(ext->block_size, ext->type, ext->record),
              std::make_tuple(128, row_type, Bytes(record.begin(), record.end() - 6)));
    // Only the layout's own getter takes the type, and none takes type 18.
    for (size_t l = 0; l < kLayouts.size(); ++l) {
      Fields got;
      const bool own = l == layout && row_type != MDF_CE_SSC;
      EXPECT_EQ(kLayouts[l].get(open_channel(g, i + 1), got), own ? 0 : MDF_NO_MODULE_INFO) << l;
      if (own) {
        EXPECT_EQ(record_of(kLayouts[l].places, got), record);
      }
    }
  }
  EXPECT_EQ(mdfGetErrorCode(), 0) << "1009 is not sticky";
}

// Blocks shorter and longer than a record, and none; then module blocks set in the file open for
// modifying, with the group open for modifying or for reading.
TEST_F(ModuleInfo, BlocksOfOtherSizesAndSetInAModifiedFile) {
  mdftest::FileModel model;
  auto& cg = model.add_data_group().add_channel_group(2);
  cg.add_channel("a", 0, 8, MDF_DT_UINT).extension =
      mdftest::extension(MDF_CE_DIM, Bytes(122, 0x11));
  cg.add_channel("b", 8, 8, MDF_DT_UINT);
  cg.add_channel("short", 0, 8, MDF_DT_UINT).extension = mdftest::extension(MDF_CE_DIM, {});
  cg.channels.back().extension->block_size = 6;
  cg.add_channel("long", 0, 8, MDF_DT_UINT).extension =
      mdftest::extension(MDF_CE_CANIM, Bytes(194, 'x'));
  cg.add_record();
  const auto built = mdftest::build(model);
  EXPECT_EQ(check_extensions(write(built)), 3u);
  // A text running to the end of a long block ends in the zeros behind it.
  const char* t = nullptr;
  ASSERT_EQ(mdfChnGetCanInfo(open_channel(open(path("in.mdf"), MDF_OPEN_READ), 4), nullptr, nullptr,
                             nullptr, &t, nullptr),
            0);
  EXPECT_EQ(std::string(t), std::string(194 - 24, 'x'));
  ASSERT_EQ(mdfFileClose(f_), 0);
  // The module blocks of other writers' files.
  size_t found = 0;
  for (const auto& entry : std::filesystem::directory_iterator(KORVEL_SAMPLES_DIR)) {
    if (entry.path().extension() == ".mdf")
      found += check_extensions(mdftest::copy_writable(entry.path(), dir_).string());
  }
  EXPECT_GT(found, 0u);

  for (const uint16_t mode : {uint16_t{MDF_OPEN_MODIFY}, uint16_t{MDF_OPEN_READ}}) {
    SCOPED_TRACE(mode);
    const std::string file = write(built, "mod" + std::to_string(mode) + ".mdf");
    mdf_group* g = open(file, MDF_OPEN_MODIFY, mode);
    ASSERT_EQ(mdfChnSetCanInfo(open_channel(g, 1), 3, 4, "five", "six", 7), 0);
    ASSERT_EQ(mdfChnSetQ24Info(open_channel(g, 2), "q", 8, 9), 0);
    ASSERT_EQ(mdfGrpClose(g), 0);
    ASSERT_EQ(mdfFileClose(f_), 0);
    // Up to the old end only the two links changed: the old block stays, unlinked.
    const auto read = mdftest::read_file(file);
    ASSERT_TRUE(read.ok()) << read.error_text();
    const auto& chs = read.channel_groups().at(0)->channels;
    mdftest::Image want = built;
    for (size_t i = 0; i < 2; ++i) {
      EXPECT_GE(chs[i].extension_link, built.size());
      want.patch_u32(
          built.data_groups[0].channel_groups[0].channels[i].offset + mdftest::off::cn_extension,
          chs[i].extension_link);
    }
    EXPECT_EQ(Bytes(read.bytes.begin(), read.bytes.begin() + built.size()), want.bytes);
    EXPECT_EQ(std::make_tuple(chs[0].extension->type, chs[0].extension->record[0],
                              chs[1].extension->type, chs[1].extension->record[34]),
              std::make_tuple(MDF_CE_CANIM, 3, MDF_CE_Q24, 9));
    EXPECT_EQ(check_extensions(file), 4u);
  }
}

}  // namespace
