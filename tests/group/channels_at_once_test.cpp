// The functions that serve several channels in one call against the one-channel functions,
// and the one-channel array reads against the per-value reads, over every group of every
// sample file (sorted and unsorted), with the range's edges.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "korvel.h"

namespace {

namespace fs = std::filesystem;

struct Library {
  Library() { mdfOpen("TEST"); }
  ~Library() { mdfClose(); }
};

TEST(ChannelsAtOnce, AsTheOneChannelFunctionsOnEverySample) {
  int groups_seen = 0;
  for (const auto& entry : fs::directory_iterator(KORVEL_SAMPLES_DIR)) {
    if (entry.path().extension() != ".mdf") continue;
    Library library;
    mdf_file* f = nullptr;
    ASSERT_EQ(mdfFileOpen(&f, entry.path().string().c_str(), MDF_OPEN_READ), 0) << entry.path();
    uint16_t group_count = 0;
    ASSERT_EQ(mdfFileGroups(&group_count, f), 0);
    for (uint16_t gi = 1; gi <= group_count; ++gi, ++groups_seen) {
      SCOPED_TRACE(entry.path().filename().string() + " group " + std::to_string(gi));
      mdf_group* g = nullptr;
      ASSERT_EQ(mdfGrpOpen(&g, f, gi, 0), 0);
      uint16_t n = 0;
      uint32_t records = 0;
      ASSERT_EQ(mdfGrpChannels(&n, g), 0);
      ASSERT_EQ(mdfGrpRecords(&records, g), 0);
      std::vector<channelnode*> many(n + 1u, nullptr), one(n, nullptr);
      // One past the last channel: 1002, the missing slot NULL, the others open.
      EXPECT_EQ(mdfGrpOpenChannels(many.data(), g, 1, static_cast<uint16_t>(n + 1)),
                MDF_CHANNEL_NOT_FOUND);
      EXPECT_EQ(many[n], nullptr);
      many.pop_back();
      std::vector<uint16_t> types(n), bits(n), value_types(n);
      std::vector<char> names(33u * n, 'x');
      ASSERT_EQ(mdfChnGetInfoArrays(types.data(), bits.data(), value_types.data(), names.data(),
                                    many.data(), n),
                0);
      std::vector<channelnode*> numeric;
      for (uint16_t c = 0; c < n; ++c) {
        ASSERT_EQ(mdfChnOpen(&one[c], g, static_cast<uint16_t>(c + 1)), 0);
        uint16_t t = 0, b = 0, v = 0;
        const char* name = nullptr;
        ASSERT_EQ(mdfChnGetInfo(one[c], &t, &b, &v, &name, nullptr, nullptr), 0);
        EXPECT_EQ(types[c], t);
        EXPECT_EQ(bits[c], b);
        EXPECT_EQ(value_types[c], v);
        EXPECT_STREQ(&names[33u * c], name);
        EXPECT_EQ(names[33u * c + 32], '\0');
        if (v != MDF_DT_STRING && v != MDF_DT_BYTES) numeric.push_back(many[c]);
      }
      // Whole group, the last record with one beyond, and a start past the end.
      const uint32_t ranges[][2] = {{0, records}, {records > 0 ? records - 1 : 0, 2}, {records, 3}};
      for (const auto& [first, count] : ranges) {
        const auto k = static_cast<uint16_t>(numeric.size());
        std::vector<double> rows(std::size_t{k} * count, -1.0), expect(count, -1.0);
        uint32_t done = 99;
        const int16_t st = mdfChnReadPhyArrays(rows.data(), &done, numeric.data(), k, first, count);
        int16_t want_status = 0;
        uint32_t want_done = 0;
        for (uint16_t c = 0; c < k; ++c) {
          uint32_t d = 0;
          const int16_t s = mdfChnReadPhyArray(expect.data(), &d, numeric[c], first, count);
          if (want_status == 0 || (want_status == 1 && s != 0)) want_status = s;
          want_done = d;
          EXPECT_EQ(std::memcmp(rows.data() + std::size_t{c} * count, expect.data(), d * 8), 0)
              << "channel " << c << " from " << first;
          // The one-channel array read against the per-value read, record by record.
          for (uint32_t r = 0; r < d; ++r) {
            double single = 0;
            ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(first + r), MDF_SEEK_ABS), 0);
            ASSERT_EQ(mdfChnGetPhy(&single, numeric[c], 0), 0);
            EXPECT_EQ(std::memcmp(&single, &expect[r], 8), 0) << c << " record " << first + r;
          }
        }
        EXPECT_EQ(st, want_status) << first;
        if (k > 0) {
          EXPECT_EQ(done, want_done) << first;
        }
      }
    }
    // Channels of two groups in one read: refused.
    if (group_count >= 2) {
      mdf_group *g1 = nullptr, *g2 = nullptr;
      channelnode* mixed[2] = {};
      ASSERT_EQ(mdfGrpOpen(&g1, f, 1, 0), 0);
      ASSERT_EQ(mdfGrpOpen(&g2, f, 2, 0), 0);
      ASSERT_EQ(mdfChnOpen(&mixed[0], g1, 1), 0);
      ASSERT_EQ(mdfChnOpen(&mixed[1], g2, 1), 0);
      double out[2] = {};
      EXPECT_EQ(mdfChnReadPhyArrays(out, nullptr, mixed, 2, 0, 1), MDF_ERR_FATAL);
    }
  }
  EXPECT_GE(groups_seen, 4);
}

}  // namespace
