// Array reads against the per-value functions: a table of layouts (data types, bit positions,
// byte orders) times conversion rules, in sorted and unsorted data groups; the range edges, where
// the several-channel read is compared with the one-channel read.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/scratch.h"

namespace {

constexpr uint16_t kRecord = 24;  // record data bytes of the table's channel group
constexpr uint32_t kRecords = 37;

struct Layout {
  uint16_t code, first_bit, bits;
};

// Integer codes at aligned and odd positions (spans of 1 to 8 bytes), floats, VAX, strings,
// byte arrays, and layouts the decoders refuse.
std::vector<Layout> layouts() {
  const uint16_t int_codes[] = {0, 1, 9, 10, 13, 14}, float_codes[] = {2, 3, 11, 12, 15, 16};
  const uint16_t ints[][2] = {{0, 8},   {8, 16}, {16, 32}, {64, 64}, {3, 1},   {5, 12},
                              {13, 24}, {7, 32}, {11, 40}, {2, 63},  {130, 64}};
  const uint16_t floats[][2] = {{0, 32}, {64, 32}, {64, 64}, {3, 32}, {0, 16}};
  std::vector<Layout> out = {{4, 32, 32}, {5, 0, 64}, {7, 128, 64}, {8, 64, 40}, {8, 4, 16}};
  for (uint16_t code : int_codes)
    for (const auto& [first, bits] : ints) out.push_back({code, first, bits});
  for (uint16_t code : float_codes)
    for (const auto& [first, bits] : floats) out.push_back({code, first, bits});
  return out;
}

std::vector<mdftest::ConversionPtr> rules() {
  return {nullptr,
          mdftest::linear(-3.5, 0.25),
          mdftest::params(mdftest::cc::polynomial, {1.0, 2.0, 0.5, -0.25, 3.0, 7.0}),
          mdftest::params(mdftest::cc::rational, {0.5, -1.0, 2.0, 0.0, 1.0, 0.0}),
          mdftest::table(true, {{-100.0, 1.0}, {0.0, 5.0}, {1e6, -2.0}}),
          mdftest::table(false, {{-100.0, 1.0}, {0.0, 5.0}, {1e6, -2.0}}),
          mdftest::params(mdftest::cc::exponential, {1.0, 2.0, 3.0, 0.0, 0.0, 1.0, 0.5}),
          mdftest::params(mdftest::cc::logarithmic, {0.0, 0.0, 1.0, 2.0, 0.5, 1.0, 0.0}),
          mdftest::formula("X*2+1"),
          mdftest::verbal_table({{1.0, "one"}}),
          mdftest::range_table({{0.0, 0.0, "{LINEAR_CONV \"2*{X}+1\"}"}, {0.0, 5.0, "low"}}),
          mdftest::params(mdftest::cc::identity, {}),
          mdftest::raw_conversion(99, 0, {})};
}

// A channel group carrying every layout with every rule, records of random bytes.
void fill_group(mdftest::ChannelGroup& cg, std::mt19937& random) {
  const auto conversions = rules();
  int n = 0;
  for (const Layout& l : layouts()) {
    for (const auto& rule : conversions) {
      auto& ch = cg.add_channel("c" + std::to_string(n++), l.first_bit, l.bits, l.code);
      ch.conversion = rule;
    }
  }
  cg.channels.front().channel_type = 1;  // a time channel for the time array
  for (uint32_t r = 0; r < kRecords; ++r) {
    auto& rec = cg.add_record();
    for (auto& b : rec) b = static_cast<uint8_t>(random());
  }
}

using BulkRead = mdftest::Session;
using mdftest::open_group;

// Every record read both ways for one kind of value: the same statuses and the same bits. A
// type the decoders refuse reads nothing, and so does any failure of a raw bytes read.
template <class T, class Handle, class Single, class Array>
void compare(mdf_group* g, Handle* ch, uint32_t records, Single single, Array array,
             bool raw_bytes = false) {
  std::vector<T> expected(records);
  int16_t expected_status = 0;
  for (uint32_t r = 0; r < records; ++r) {
    ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(r), MDF_SEEK_ABS), 0);
    const int16_t st = single(&expected[r], ch);
    if (r == 0) expected_status = st;
    ASSERT_EQ(st, expected_status) << "record " << r;
  }
  // The cursor rests on a record in the middle; it stays there.
  ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(records / 2), MDF_SEEK_ABS), 0);
  std::vector<T> got(records + 3);
  std::memset(got.data(), 0xEE, got.size() * sizeof(T));
  uint32_t done = 99;
  const int16_t st = array(got.data(), &done, ch, 0u, records + 3);
  uint32_t at = 0;
  EXPECT_EQ(mdfGrpTell(&at, g), 0);
  EXPECT_EQ(at, records / 2);
  EXPECT_EQ(st, expected_status == 0 ? MDF_END_OF_GROUP : expected_status);
  const bool refused = expected_status == MDF_UNSUPPORTED_TYPE || (raw_bytes && expected_status);
  ASSERT_EQ(done, refused ? 0u : records);
  for (uint32_t r = 0; r < done; ++r)
    ASSERT_EQ(std::memcmp(&got[r], &expected[r], sizeof(T)), 0) << "record " << r;
}

void compare_channel(mdf_group* g, channelnode* ch, uint32_t records) {
  compare<double>(
      g, ch, records, [](double* v, channelnode* c) { return mdfChnGetPhy(v, c, 0); },
      mdfChnReadPhyArray);
  compare<double>(
      g, ch, records, [](double* v, channelnode* c) { return mdfChnGetHex(v, c, 0); },
      mdfChnReadHexArray);
  compare<uint64_t>(
      g, ch, records, [](uint64_t* v, channelnode* c) { return mdfChnGetHexInt(v, c, 0); },
      mdfChnReadHexIntArray);
  // Raw bytes in slots of 9 bytes: what mdfChnGetData gives, zero-padded.
  uint16_t bits = 0;
  ASSERT_EQ(mdfChnGetBits(ch, &bits), 0);
  if (bits > 64) return;
  using Slot = std::array<uint8_t, 9>;  // zero-padded by both
  compare<Slot>(
      g, ch, records,
      [](Slot* v, channelnode* c) {
        uint32_t length = 9;
        return mdfChnGetData(v->data(), &length, c, 0);
      },
      [](Slot* v, uint32_t* done, channelnode* c, uint32_t first, uint32_t count) {
        return mdfChnReadBytesArray(v->data(), 9, done, c, first, count);
      },
      true);
}

TEST_F(BulkRead, EveryLayoutAndRuleAsThePerValueFunctionsInSortedAndUnsortedGroups) {
  struct Case {
    const char* name;
    uint16_t ids;
    bool second_group;  // an interleaved channel group of other records (unsorted)
  };
  for (const Case& c : {Case{"sorted", 0, false}, Case{"sorted with ids", 1, false},
                        Case{"sorted with two ids", 2, false}, Case{"unsorted, one id", 1, true},
                        Case{"unsorted, two ids", 2, true}}) {
    SCOPED_TRACE(c.name);
    std::mt19937 random(7);
    mdftest::FileModel f;
    auto& dg = f.add_data_group(c.ids);
    fill_group(dg.add_channel_group(kRecord, 3), random);
    if (c.second_group) {
      auto& other = dg.add_channel_group(5, 9);
      other.add_channel("o", 0, 40, 0);
      for (uint32_t r = 0; r < 20; ++r) other.add_record()[0] = static_cast<uint8_t>(r);
      // The order must hold exactly the records of each group.
      for (uint32_t r = 0, a = 0, b = 0; r < kRecords + 20; ++r) {
        const bool take_other = b < 20 && (a == kRecords || random() % 3 == 0);
        dg.order.push_back(take_other ? 1 : 0);
        (take_other ? b : a)++;
      }
    }
    mdf_group* g = open_group(open_file(write(f)), 1);
    for (size_t i = 1; i <= dg.channel_groups[0].channels.size(); ++i) {
      channelnode* ch = mdftest::open_channel(g, i);
      SCOPED_TRACE("channel " + std::to_string(i));
      compare_channel(g, ch, kRecords);
      ASSERT_EQ(mdfChnClose(ch), 0);
      if (HasFatalFailure()) return;
    }
    compare<double>(
        g, g, kRecords, [](double* v, mdf_group* grp) { return mdfGrpGetTime(v, grp); },
        mdfGrpReadTimeArray);
    restart();
  }
}

// A group of records 0..9 in a 16-bit channel with a linear rule, unsorted with two ids.
mdftest::FileModel counting(uint16_t ids) {
  mdftest::FileModel f;
  auto& dg = f.add_data_group(ids);
  auto& cg = dg.add_channel_group(2, 1);
  cg.add_channel("n", 0, 16, 0).conversion = mdftest::linear(1.0, 2.0);
  for (uint16_t r = 0; r < 10; ++r) cg.add_record()[0] = static_cast<uint8_t>(r);
  if (ids != 0) {
    auto& other = dg.add_channel_group(3, 2);
    other.add_channel("x", 0, 8, 0);
    for (int r = 0; r < 4; ++r) other.add_record();
    dg.order = {1, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0};
  }
  return f;
}

// The range's edges, read for one channel and for the channel twice by the several-channel
// read, and the refusals of arguments: each refused read is sticky (the sorted group has
// nowhere to put the values, the unsorted one a slot narrower than its 2-byte field, and
// channels of two groups in one read); channels opened one past the last are refused, and so
// are the time functions on a group without a time channel, a time search with a sticky failure.
TEST_F(BulkRead, RangeEdgesGiveTheValuesThereAreAndStatusOneAndBadArgumentsAreRefused) {
  for (uint16_t ids : {uint16_t{0}, uint16_t{2}}) {
    restart();
    mdf_file* file = open_file(write(counting(ids)));
    mdf_group* g = nullptr;
    channelnode* ch = nullptr;
    ASSERT_EQ(mdfGrpChnOpen(&ch, &g, file, 1, 0), 0);
    channelnode* twice[2] = {ch, nullptr};
    EXPECT_EQ(mdfGrpOpenChannels(twice, g, 1, 2), MDF_CHANNEL_NOT_FOUND);
    EXPECT_EQ(twice[1], nullptr);  // the missing slot NULL
    twice[1] = ch;
    struct Edge {
      uint32_t first, count;
      int16_t status;
      uint32_t done;
    };
    for (const Edge& e :
         {Edge{0, 0, 0, 0}, Edge{0, 10, 0, 10}, Edge{3, 4, 0, 4}, Edge{9, 1, 0, 1},
          Edge{8, 5, 1, 2}, Edge{10, 1, 1, 0}, Edge{10, 0, 0, 0}, Edge{0xFFFFFFFFu, 3, 1, 0}}) {
      SCOPED_TRACE(std::to_string(ids) + ": " + std::to_string(e.first) + "+" +
                   std::to_string(e.count));
      std::vector<double> v(e.count + 1, -7.0);
      uint32_t done = 77;
      // Nothing asked, nothing needed: no place for the values.
      double* out = e.count == 0 ? nullptr : v.data();
      EXPECT_EQ(mdfChnReadPhyArray(out, &done, ch, e.first, e.count), e.status);
      EXPECT_EQ(done, e.done);
      for (uint32_t i = 0; i < done; ++i) EXPECT_EQ(v[i], 1.0 + 2.0 * (e.first + i));
      EXPECT_EQ(v[done], -7.0);                         // nothing beyond what was read
      std::vector<double> rows(2 * e.count + 1, -7.0);  // a row of `count` values per channel
      EXPECT_EQ(mdfChnReadPhyArrays(rows.data(), &done, twice, 2, e.first, e.count), e.status);
      EXPECT_EQ(done, e.done);
      for (uint32_t i = 0; i < done; ++i) {
        EXPECT_EQ(std::make_pair(rows[i], rows[e.count + i]), std::make_pair(v[i], v[i])) << i;
      }
      EXPECT_EQ(rows[2 * e.count], -7.0);
    }
    // Reading one at a time from the end backwards, through the kept records.
    for (uint32_t r = 10; r-- > 0;) {
      uint64_t raw = 0;
      ASSERT_EQ(mdfChnReadHexIntArray(&raw, nullptr, ch, r, 1), 0);
      EXPECT_EQ(raw, r);
    }
    double v[2];
    uint8_t bytes[4];
    EXPECT_EQ(mdfGrpReadTimeArray(v, nullptr, g, 0, 1), MDF_NO_TIME_CHANNEL);
    v[0] = 7;
    EXPECT_EQ(mdfGrpGetTime(v, g), MDF_NO_TIME_CHANNEL);
    EXPECT_EQ(v[0], 0.0);
    EXPECT_EQ(mdfGrpSetTime(g, 1.0), MDF_NO_TIME_CHANNEL);
    if (ids == 0) {
      EXPECT_EQ(mdfChnReadPhyArray(nullptr, nullptr, ch, 0, 1), MDF_ERR_FATAL);
    } else {
      EXPECT_EQ(mdfChnReadBytesArray(bytes, 1, nullptr, ch, 0, 2), MDF_ERR_FATAL);
    }
    EXPECT_EQ(mdfChnReadPhyArray(v, nullptr, ch, 0, 1), MDF_ERR_FATAL);
    restart();
    mdf_file* again = open_file(path("in.mdf"));
    g = mdftest::open_group(again, 1);
    if (ids == 0) {
      EXPECT_EQ(mdfGrpSeekTime(g, 1.0, 0), MDF_ERR_FATAL);  // a time search needs a time channel
    } else {
      twice[0] = mdftest::open_channel(g, 1);
      twice[1] = mdftest::open_channel(mdftest::open_group(again, 2), 1);
      EXPECT_EQ(mdfChnReadPhyArrays(v, nullptr, twice, 2, 0, 1), MDF_ERR_FATAL);
    }
  }
}

}  // namespace
