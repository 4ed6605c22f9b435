// Test-side MDF 3.x file reader; see mdf_reader.h.
#include "support/mdf_reader.h"

#include <algorithm>
#include <bit>
#include <fstream>
#include <iterator>
#include <set>
#include <type_traits>
#include <utility>
#include <variant>

namespace mdftest {

namespace {

uint64_t load_le(const uint8_t* p, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v |= static_cast<uint64_t>(p[i]) << (8 * i);
  return v;
}

std::string at_text(uint64_t v) {
  return " at " + std::to_string(v);
}

std::string chars_of(std::span<const uint8_t> b) {
  return std::string(b.begin(), std::find(b.begin(), b.end(), uint8_t{0}));
}

// The links and counts of the blocks, beside the value fields of mdf_layout.h.
const Field<ReadHeader> header_links[] = {{off::hd_first_dg, &ReadHeader::first_dg_link},
                                          {off::hd_comment, &ReadHeader::comment_link},
                                          {off::hd_program, &ReadHeader::program_link},
                                          {off::hd_dg_count, &ReadHeader::dg_count}};
const Field<ReadDataGroup> data_group_fields[] = {{off::dg_next, &ReadDataGroup::next_link},
                                                  {off::dg_first_cg, &ReadDataGroup::first_cg_link},
                                                  {off::dg_trigger, &ReadDataGroup::trigger_link},
                                                  {off::dg_data, &ReadDataGroup::data_link},
                                                  {off::dg_cg_count, &ReadDataGroup::cg_count},
                                                  {off::dg_record_ids, &ReadDataGroup::record_ids}};
const Field<ReadChannelGroup> channel_group_fields[] = {
    {off::cg_next, &ReadChannelGroup::next_link},
    {off::cg_first_cn, &ReadChannelGroup::first_cn_link},
    {off::cg_comment, &ReadChannelGroup::comment_link},
    {off::cg_record_id, &ReadChannelGroup::record_id},
    {off::cg_cn_count, &ReadChannelGroup::cn_count},
    {off::cg_record_size, &ReadChannelGroup::record_size},
    {off::cg_record_count, &ReadChannelGroup::record_count}};
// The long name link needs a block of 222 bytes, the display name link 228: a field beyond the
// block reads as 0.
const Field<ReadChannel> channel_links[] = {
    {off::cn_next, &ReadChannel::next_link},
    {off::cn_conversion, &ReadChannel::conversion_link},
    {off::cn_extension, &ReadChannel::extension_link},
    {off::cn_dependency, &ReadChannel::dependency_link},
    {off::cn_comment, &ReadChannel::comment_link},
    {off::cn_long_name, &ReadChannel::long_name_link},
    {off::cn_display_name, &ReadChannel::display_name_link}};

// One block's bytes; fields beyond the block read as zero or empty.
struct Blk {
  uint32_t at = 0;
  std::span<const uint8_t> d;

  uint16_t size() const { return static_cast<uint16_t>(d.size()); }
  bool has(uint32_t field, uint32_t width) const { return field + uint64_t{width} <= d.size(); }
  uint64_t le(uint32_t field, uint32_t width) const {
    return has(field, width) ? load_le(d.data() + field, width) : 0;
  }
  uint16_t u16(uint32_t field) const { return static_cast<uint16_t>(le(field, 2)); }
  uint32_t u32(uint32_t field) const { return static_cast<uint32_t>(le(field, 4)); }
  double real(uint32_t field) const { return std::bit_cast<double>(le(field, 8)); }
  std::string chars(uint32_t field, uint32_t width) const {
    return has(field, width) ? chars_of(d.subspan(field, width)) : std::string();
  }
  std::span<const uint8_t> from(uint32_t field) const {
    return field < d.size() ? d.subspan(field) : std::span<const uint8_t>();
  }
  // Reads the fields listed in `table` into `s`, with the block's offset and size.
  template <class S, size_t N, class Out>
  void all(const Field<S> (&table)[N], Out& s) const {
    if constexpr (requires { s.block_size; }) {
      s.offset = at;
      s.block_size = size();
    }
    for (const Field<S>& f : table)
      std::visit(
          [&](auto m) {
            auto& v = s.*m;
            using T = std::remove_cvref_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::string>)
              v = chars(f.at, f.width);
            else if constexpr (std::is_same_v<T, double>)
              v = real(f.at);
            else
              v = static_cast<T>(le(f.at, sizeof(T)));
          },
          f.member);
  }
};

class Reader {
 public:
  Reader(std::span<const uint8_t> file, ReadFile& out) : f_(file), r_(out) {}

  void run() {
    if (f_.size() < off::id_size) return error("file of " + std::to_string(f_.size()) + " bytes");
    Blk{0, f_.first(off::id_size)}.all(id_fields, r_.id);
    const auto hd = block(off::id_size, "HD");
    if (!hd) return;
    ReadHeader& h = r_.header;
    hd->all(header_links, h);
    hd->all(header_fields, h);
    h.comment = text(h.comment_link);
    if (const auto pr = block(h.program_link, "PR")) {
      const auto bytes = pr->from(4);
      h.program.emplace(bytes.begin(), bytes.end());
    }
    walk_chain(h.first_dg_link, "DG", [&](const Blk& b) {
      read_data_group(b, r_.data_groups.emplace_back());
      return r_.data_groups.back().next_link;
    });
    for (auto& dg : r_.data_groups) read_data(dg);
  }

 private:
  void error(std::string s) { r_.errors.push_back(std::move(s)); }
  void warning(std::string s) { r_.warnings.push_back(std::move(s)); }

  // Reads the block at link, which must carry the identifier id.
  std::optional<Blk> block(uint32_t link, std::string_view id) {
    if (link == 0) return std::nullopt;
    const std::string what = std::string(id) + at_text(link);
    if (uint64_t{link} + 4 > f_.size()) {
      error(what + ": beyond the end of the file (" + std::to_string(f_.size()) + " bytes)");
      return std::nullopt;
    }
    const auto size = static_cast<uint16_t>(load_le(f_.data() + link + 2, 2));
    if (f_[link] != static_cast<uint8_t>(id[0]) || f_[link + 1] != static_cast<uint8_t>(id[1])) {
      error(what + ": found \"" + chars_of(f_.subspan(link, 2)) + "\"");
      return std::nullopt;
    }
    if (size < 4 || uint64_t{link} + size > f_.size()) {
      error(what + ": size " + std::to_string(size) + " below 4 or past the end of the file");
      return std::nullopt;
    }
    r_.blocks[link] = BlockInfo{std::string(id), size};
    return Blk{link, f_.subspan(link, size)};
  }

  std::optional<std::string> text(uint32_t link) {
    const auto b = block(link, "TX");
    return b ? std::optional(chars_of(b->from(4))) : std::nullopt;
  }

  // Follows a chain of blocks of one kind from `link`, stopping at a cycle or a bad block.
  // `visit` reads a member and returns the link to the next one.
  template <class Visit>
  void walk_chain(uint32_t link, const char* id, Visit&& visit) {
    std::set<uint32_t> seen;
    while (link != 0) {
      if (!seen.insert(link).second)
        return error(std::string(id) + " chain: cycle" + at_text(link));
      const auto b = block(link, id);
      if (!b) return;
      link = visit(*b);
    }
  }

  // Entries of `stride` bytes from `first`, as many as `count` says and the block holds.
  template <class Read>
  void entries(const Blk& b, uint32_t first, uint32_t stride, uint32_t count, Read&& read) {
    for (uint32_t k = 0; k < count; ++k) {
      if (!b.has(first + stride * k, stride)) {
        return warning(std::string(b.d.begin(), b.d.begin() + 2) + at_text(b.at) + ": " +
                       std::to_string(count) + " entries, block holds " + std::to_string(k));
      }
      read(first + stride * k);
    }
  }

  void read_data_group(const Blk& b, ReadDataGroup& dg) {
    b.all(data_group_fields, dg);
    if (const auto tr = block(dg.trigger_link, "TR")) {
      ReadTrigger& t = dg.trigger.emplace();
      t.offset = tr->at;
      t.block_size = tr->size();
      t.comment_link = tr->u32(off::tr_comment);
      t.event_count = tr->u16(off::tr_count);
      entries(*tr, off::tr_events, 24, t.event_count, [&](uint32_t e) {
        t.events.push_back({tr->real(e), tr->real(e + 8), tr->real(e + 16)});
      });
      t.comment = text(t.comment_link);
    }
    walk_chain(dg.first_cg_link, "CG", [&](const Blk& member) {
      ReadChannelGroup& g = dg.channel_groups.emplace_back();
      member.all(channel_group_fields, g);
      g.comment = text(g.comment_link);
      walk_chain(g.first_cn_link, "CN", [&](const Blk& cn) {
        read_channel(cn, g.channels.emplace_back());
        return g.channels.back().next_link;
      });
      return g.next_link;
    });
  }

  void read_channel(const Blk& b, ReadChannel& c) {
    b.all(channel_links, c);
    b.all(channel_fields, c);
    if (b.size() < 228) c.display_name_link = 0;  // it counts only in blocks of 228+ bytes
    c.comment = text(c.comment_link);
    c.long_name = text(c.long_name_link);
    c.display_name = text(c.display_name_link);
    if (const auto cc = block(c.conversion_link, "CC"))
      read_conversion(*cc, c.conversion.emplace());
    if (const auto ce = block(c.extension_link, "CE")) {
      ReadExtension& e = c.extension.emplace();
      e.offset = ce->at;
      e.block_size = ce->size();
      e.type = ce->u16(off::ce_type);
      const auto rec = ce->from(off::ce_record);
      e.record.assign(rec.begin(), rec.end());
    }
    if (const auto cd = block(c.dependency_link, "CD")) {
      ReadDependency& d = c.dependency.emplace();
      d.offset = cd->at;
      d.block_size = cd->size();
      d.type = cd->u16(off::cd_type);
      d.count = cd->u16(off::cd_count);
      entries(*cd, off::cd_links, 12, d.count, [&](uint32_t e) {
        d.links.push_back({cd->u32(e), cd->u32(e + 4), cd->u32(e + 8)});
      });
    }
  }

  void read_conversion(const Blk& b, ReadConversion& c) {
    b.all(conversion_fields, c);
    c.param_count = b.u16(off::cc_count);
    const auto tail = b.from(off::cc_params);
    const bool decoded = c.type <= cc::table || c.type == cc::identity ||
                         (c.type >= cc::polynomial && c.type <= cc::verbal_range);
    if (!decoded) return void(c.raw_tail.emplace(tail.begin(), tail.end()));
    if (c.type == cc::formula) return void(c.formula = chars_of(tail));
    const bool table = c.type == cc::table_interp || c.type == cc::table;
    const uint32_t stride = table                        ? off::cc_table_stride
                            : c.type == cc::verbal       ? off::cc_verbal_stride
                            : c.type == cc::verbal_range ? off::cc_range_stride
                                                         : 8;
    entries(b, off::cc_params, stride, c.param_count, [&](uint32_t e) {
      if (table)
        c.table.emplace_back(b.real(e), b.real(e + 8));
      else if (c.type == cc::verbal)
        c.verbal.push_back({b.real(e), b.chars(e + 8, 32)});
      else if (c.type == cc::verbal_range)
        c.ranges.push_back({b.real(e), b.real(e + 8), text(b.u32(e + 16))});
      else
        c.params.push_back(b.real(e));
    });
  }

  void read_data(ReadDataGroup& dg) {
    const std::string what = "DG" + at_text(dg.offset);
    const uint64_t ids = dg.record_ids;
    uint64_t expected = 0, total_records = 0;
    for (const auto& g : dg.channel_groups) {
      expected += uint64_t{g.record_count} * (g.record_size + ids);
      total_records += g.record_count;
    }
    if (dg.data_link == 0) {
      if (total_records != 0) warning(what + ": records declared, no data link");
      return;
    }
    if (dg.data_link >= f_.size()) return error(what + ": data link beyond the end of the file");
    const uint64_t available = f_.size() - dg.data_link;
    const auto data = f_.subspan(dg.data_link, std::min(expected, available));
    dg.data.assign(data.begin(), data.end());
    if (available < expected)
      warning(what + ": data section of " + std::to_string(expected) + " bytes, file holds " +
              std::to_string(available));
    const auto take = [&](ReadChannelGroup& g, size_t pos) {
      g.records.emplace_back(data.begin() + static_cast<std::ptrdiff_t>(pos),
                             data.begin() + static_cast<std::ptrdiff_t>(pos + g.record_size));
    };
    size_t pos = 0;
    if (ids == 0) {
      // Records of each channel group one after the other, in channel-group order.
      for (auto& g : dg.channel_groups) {
        for (uint32_t k = 0;
             g.record_size != 0 && k < g.record_count && pos + g.record_size <= data.size();
             ++k, pos += g.record_size)
          take(g, pos);
      }
      return;
    }
    // Interleaved records, each led by its channel group's record id.
    for (uint64_t n = 0; n < total_records && pos < data.size(); ++n) {
      const uint8_t id = data[pos];
      const auto it = std::find_if(dg.channel_groups.begin(), dg.channel_groups.end(),
                                   [&](const auto& g) { return (g.record_id & 0xFF) == id; });
      if (it == dg.channel_groups.end())
        return warning(what + ": unknown record id " + std::to_string(id) + at_text(pos));
      const size_t length = 1 + it->record_size + (ids == 2 ? 1 : 0);
      if (pos + length > data.size()) return warning(what + ": record cut off" + at_text(pos));
      take(*it, pos + 1);
      if (ids == 2 && data[pos + length - 1] != id)
        warning(what + ": trailing record id differs from the leading one" + at_text(pos));
      pos += length;
    }
  }

  std::span<const uint8_t> f_;
  ReadFile& r_;
};

}  // namespace

std::string ReadFile::error_text() const {
  std::string s;
  for (const auto& e : errors) s += "error: " + e + "\n";
  for (const auto& w : warnings) s += "warning: " + w + "\n";
  return s;
}

std::vector<const ReadChannelGroup*> ReadFile::channel_groups() const {
  std::vector<const ReadChannelGroup*> out;
  for (const auto& dg : data_groups)
    for (const auto& cg : dg.channel_groups) out.push_back(&cg);
  return out;
}

ReadFile read_bytes(std::span<const uint8_t> bytes) {
  ReadFile r;
  r.bytes.assign(bytes.begin(), bytes.end());
  Reader(r.bytes, r).run();
  return r;
}

ReadFile read_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    ReadFile r;
    r.errors.push_back("cannot open " + path.string());
    return r;
  }
  return read_bytes(std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {}));
}

}  // namespace mdftest
