// Test-side MDF 3.x file reader; see mdf_reader.h.
#include "support/mdf_reader.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>

#include "support/mdf_builder.h"

namespace mdftest {

namespace {

uint64_t load_le(const uint8_t* p, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v |= static_cast<uint64_t>(p[i]) << (8 * i);
  return v;
}

std::string hex(uint64_t v) {
  std::ostringstream s;
  s << "0x" << std::hex << v;
  return s.str();
}

std::string printable(std::span<const uint8_t> b) {
  std::string s;
  for (const uint8_t c : b) {
    if (c >= 0x20 && c < 0x7F)
      s.push_back(static_cast<char>(c));
    else
      s += "\\x" + hex(c).substr(2);
  }
  return s;
}

std::string chars_of(std::span<const uint8_t> b) {
  std::string s;
  for (const uint8_t c : b) {
    if (c == 0) break;
    s.push_back(static_cast<char>(c));
  }
  return s;
}

bool is_decoded_conversion(uint16_t type) {
  return type <= cc::table || (type >= cc::polynomial && type <= cc::verbal_range) ||
         type == cc::identity;
}

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
  double real(uint32_t field) const {
    return std::bit_cast<double>(le(field, 8));
  }
  std::string chars(uint32_t field, uint32_t width) const {
    return has(field, width) ? chars_of(d.subspan(field, width)) : std::string();
  }
  // Reads the value fields listed in `table` into `s`.
  template <class S, size_t N, class Out>
  void all(const Field<S> (&table)[N], Out& s) const {
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
  std::span<const uint8_t> from(uint32_t field) const {
    return field < d.size() ? d.subspan(field) : std::span<const uint8_t>();
  }
};

class Reader {
 public:
  Reader(std::span<const uint8_t> file, ReadFile& out) : f_(file), r_(out) {}

  void run() {
    if (f_.size() < off::id_size) {
      error("file of " + std::to_string(f_.size()) + " bytes has no identification block");
      return;
    }
    Blk{0, f_.first(off::id_size)}.all(id_fields, r_.id);

    const auto hd = block(off::id_size, "HD", "header");
    if (!hd) return;
    read_header(*hd);
    walk_chain(r_.header.first_dg_link, "DG", "dg", "data group",
               [&](const Blk& b, const std::string& p) {
                 read_data_group(b, r_.data_groups.emplace_back(), p);
                 return r_.data_groups.back().next_link;
               });
    for (size_t i = 0; i < r_.data_groups.size(); ++i)
        read_data(r_.data_groups[i], "dg[" + std::to_string(i) + "]");
    resolve_dependencies();
  }

 private:
  void error(std::string s) { r_.errors.push_back(std::move(s)); }
  void warning(std::string s) { r_.warnings.push_back(std::move(s)); }

  // Reads the block at link, which must carry the identifier id. The name used in messages is
  // path and detail, composed only for a message.
  std::optional<Blk> block(uint32_t link, std::string_view id, const std::string& path,
                           std::string_view detail = {}) {
    if (link == 0) return std::nullopt;
    const auto what = [&] { return detail.empty() ? path : path + " " + std::string(detail); };
    if (uint64_t{link} + 4 > f_.size()) {
      error(what() + ": link " + hex(link) + " beyond the end of the file (" +
            std::to_string(f_.size()) + " bytes)");
      return std::nullopt;
    }
    const auto head = f_.subspan(link, 4);
    const auto size = static_cast<uint16_t>(load_le(head.data() + 2, 2));
    if (head[0] != static_cast<uint8_t>(id[0]) || head[1] != static_cast<uint8_t>(id[1])) {
      error(what() + ": expected " + std::string(id) + " at " + hex(link) + ", found \"" +
            printable(head.first(2)) + "\"");
      return std::nullopt;
    }
    if (size < 4) {
      error(what() + ": " + std::string(id) + " at " + hex(link) + " has size " +
            std::to_string(size));
      return std::nullopt;
    }
    if (uint64_t{link} + size > f_.size()) {
      error(what() + ": " + std::string(id) + " at " + hex(link) + " of " + std::to_string(size) +
            " bytes runs past the end of the file");
      return std::nullopt;
    }
    r_.blocks[link] = BlockInfo{std::string(id), size};
    return Blk{link, f_.subspan(link, size)};
  }

  std::optional<std::string> text(uint32_t link, const std::string& path,
                                  std::string_view detail = {}) {
    const auto b = block(link, "TX", path, detail);
    if (!b) return std::nullopt;
    return chars_of(b->from(4));
  }

  void read_header(const Blk& b) {
    ReadHeader& h = r_.header;
    h.offset = b.at;
    h.block_size = b.size();
    h.first_dg_link = b.u32(off::hd_first_dg);
    h.comment_link = b.u32(off::hd_comment);
    h.program_link = b.u32(off::hd_program);
    h.dg_count = b.u16(off::hd_dg_count);
    b.all(header_fields, h);
    h.comment = text(h.comment_link, "header comment");
    if (const auto pr = block(h.program_link, "PR", "header program block")) {
      const auto bytes = pr->from(4);
      h.program.emplace(bytes.begin(), bytes.end());
    }
  }

  void read_data_group(const Blk& b, ReadDataGroup& dg, const std::string& path) {
    dg.offset = b.at;
    dg.block_size = b.size();
    dg.next_link = b.u32(off::dg_next);
    dg.first_cg_link = b.u32(off::dg_first_cg);
    dg.trigger_link = b.u32(off::dg_trigger);
    dg.data_link = b.u32(off::dg_data);
    dg.cg_count = b.u16(off::dg_cg_count);
    dg.record_ids = b.u16(off::dg_record_ids);
    if (const auto tr = block(dg.trigger_link, "TR", path, "trigger")) {
      ReadTrigger& t = dg.trigger.emplace();
      t.offset = tr->at;
      t.block_size = tr->size();
      t.comment_link = tr->u32(off::tr_comment);
      t.event_count = tr->u16(off::tr_count);
      for (uint32_t k = 0; k < t.event_count; ++k) {
        const uint32_t e = off::tr_events + 24 * k;
        if (!tr->has(e, 24)) {
          warning(path + " trigger: " + std::to_string(t.event_count) + " events, block holds " +
                  std::to_string(k));
          break;
        }
        t.events.push_back({tr->real(e), tr->real(e + 8), tr->real(e + 16)});
      }
      t.comment = text(t.comment_link, path, "trigger comment");
    }
    walk_chain(dg.first_cg_link, "CG", path + ".cg", "channel group",
               [&](const Blk& member, const std::string& p) {
                 read_channel_group(member, dg.channel_groups.emplace_back(), p);
                 return dg.channel_groups.back().next_link;
               });
  }

  void read_channel_group(const Blk& b, ReadChannelGroup& g, const std::string& path) {
    g.offset = b.at;
    g.block_size = b.size();
    g.next_link = b.u32(off::cg_next);
    g.first_cn_link = b.u32(off::cg_first_cn);
    g.comment_link = b.u32(off::cg_comment);
    g.record_id = b.u16(off::cg_record_id);
    g.cn_count = b.u16(off::cg_cn_count);
    g.record_size = b.u16(off::cg_record_size);
    g.record_count = b.u32(off::cg_record_count);
    g.comment = text(g.comment_link, path, "comment");
    walk_chain(g.first_cn_link, "CN", path + ".cn", "channel",
               [&](const Blk& member, const std::string& p) {
                 read_channel(member, g.channels.emplace_back(), p);
                 return g.channels.back().next_link;
               });
  }

  // Follows a chain of blocks of one kind from `link`, stopping at a cycle or a bad block.
  // `visit` reads a member and returns the link to the next one.
  template <class Visit>
  void walk_chain(uint32_t link, const char* id, const std::string& path, const char* what,
                  Visit&& visit) {
    std::set<uint32_t> seen;
    for (size_t i = 0; link != 0; ++i) {
      const std::string p = path + "[" + std::to_string(i) + "]";
      if (!seen.insert(link).second) {
        error(p + ": cycle in the " + what + " chain, " + hex(link) + " reached again");
        return;
      }
      const auto b = block(link, id, p);
      if (!b) return;
      link = visit(*b, p);
    }
  }

  void read_channel(const Blk& b, ReadChannel& c, const std::string& path) {
    c.offset = b.at;
    c.block_size = b.size();
    c.next_link = b.u32(off::cn_next);
    c.conversion_link = b.u32(off::cn_conversion);
    c.extension_link = b.u32(off::cn_extension);
    c.dependency_link = b.u32(off::cn_dependency);
    c.comment_link = b.u32(off::cn_comment);
    b.all(channel_fields, c);
    if (b.size() >= 222) c.long_name_link = b.u32(off::cn_long_name);
    if (b.size() >= 228) c.display_name_link = b.u32(off::cn_display_name);
    c.comment = text(c.comment_link, path, "comment");
    c.long_name = text(c.long_name_link, path, "long name");
    c.display_name = text(c.display_name_link, path, "display name");
    if (const auto cc = block(c.conversion_link, "CC", path, "conversion"))
      read_conversion(*cc, c.conversion.emplace(), path + " conversion");
    if (const auto ce = block(c.extension_link, "CE", path, "extension")) {
      ReadExtension& e = c.extension.emplace();
      e.offset = ce->at;
      e.block_size = ce->size();
      e.type = ce->u16(off::ce_type);
      const auto rec = ce->from(off::ce_record);
      e.record.assign(rec.begin(), rec.end());
    }
    if (const auto cd = block(c.dependency_link, "CD", path, "dependency")) {
      ReadDependency& d = c.dependency.emplace();
      d.offset = cd->at;
      d.block_size = cd->size();
      d.type = cd->u16(off::cd_type);
      d.count = cd->u16(off::cd_count);
      for (uint32_t k = 0; k < d.count; ++k) {
        const uint32_t e = off::cd_links + 12 * k;
        if (!cd->has(e, 12)) {
          warning(path + " dependency: " + std::to_string(d.count) + " entries, block holds " +
                  std::to_string(k));
          break;
        }
        d.links.push_back({cd->u32(e), cd->u32(e + 4), cd->u32(e + 8)});
      }
    }
  }

  void read_conversion(const Blk& b, ReadConversion& c, const std::string& path) {
    c.offset = b.at;
    c.block_size = b.size();
    b.all(conversion_fields, c);
    c.param_count = b.u16(off::cc_count);
    const auto tail = b.from(off::cc_params);
    if (!is_decoded_conversion(c.type)) {
      c.raw_tail.emplace(tail.begin(), tail.end());
      return;
    }
    if (c.type == cc::formula) {
      c.formula = chars_of(tail);
      return;
    }
    const uint32_t stride = c.type == cc::table_interp || c.type == cc::table ? off::cc_table_stride
                            : c.type == cc::verbal       ? off::cc_verbal_stride
                            : c.type == cc::verbal_range ? off::cc_range_stride
                                                         : 8;
    for (uint32_t i = 0; i < c.param_count; ++i) {
      const uint32_t e = off::cc_params + stride * i;
      if (!b.has(e, stride)) {
        warning(path + ": " + std::to_string(c.param_count) + " entries of " +
                std::to_string(stride) + " bytes, block holds " + std::to_string(i));
        break;
      }
      if (c.type == cc::table_interp || c.type == cc::table) {
        c.table.emplace_back(b.real(e), b.real(e + 8));
      } else if (c.type == cc::verbal) {
        c.verbal.push_back({b.real(e), b.chars(e + 8, 32)});
      } else if (c.type == cc::verbal_range) {
        const uint32_t link = b.u32(e + 16);
        c.ranges.push_back({b.real(e), b.real(e + 8), text(link, path, "range text")});
      } else {
        c.params.push_back(b.real(e));
      }
    }
  }

  void read_data(ReadDataGroup& dg, const std::string& path) {
    const uint64_t ids = dg.record_ids;
    uint64_t expected = 0;
    uint64_t total_records = 0;
    for (const auto& g : dg.channel_groups) {
      expected += uint64_t{g.record_count} * (g.record_size + ids);
      total_records += g.record_count;
    }
    if (dg.data_link == 0) {
      if (total_records != 0)
        warning(path + ": " + std::to_string(total_records) + " records declared, no data link");
      return;
    }
    if (dg.data_link >= f_.size()) {
      error(path + ": data link " + hex(dg.data_link) + " beyond the end of the file");
      return;
    }
    const uint64_t available = f_.size() - dg.data_link;
    const auto data = f_.subspan(dg.data_link, std::min(expected, available));
    dg.data.assign(data.begin(), data.end());
    if (available < expected)
      warning(path + ": data section of " + std::to_string(expected) + " bytes, file holds " +
              std::to_string(available));

    size_t pos = 0;
    if (ids == 0) {
      // Records of each channel group one after the other, in channel-group order.
      for (size_t gi = 0; gi < dg.channel_groups.size(); ++gi) {
        auto& g = dg.channel_groups[gi];
        if (g.record_size == 0) continue;
        for (uint32_t k = 0; k < g.record_count && pos + g.record_size <= data.size(); ++k) {
          g.records.emplace_back(data.begin() + static_cast<std::ptrdiff_t>(pos),
                                 data.begin() + static_cast<std::ptrdiff_t>(pos + g.record_size));
          pos += g.record_size;
        }
      }
      return;
    }
    // Interleaved records, each led by its channel group's record id.
    for (uint64_t n = 0; n < total_records && pos < data.size(); ++n) {
      const uint8_t id = data[pos];
      const auto it = std::find_if(dg.channel_groups.begin(), dg.channel_groups.end(),
                                   [&](const auto& g) { return (g.record_id & 0xFF) == id; });
      if (it == dg.channel_groups.end()) {
        warning(path + ": unknown record id " + std::to_string(id) + " at " +
                hex(dg.data_link + pos));
        return;
      }
      const size_t length = 1 + it->record_size + (ids == 2 ? 1 : 0);
      if (pos + length > data.size()) {
        warning(path + ": record at " + hex(dg.data_link + pos) + " cut off");
        return;
      }
      it->records.emplace_back(
          data.begin() + static_cast<std::ptrdiff_t>(pos + 1),
          data.begin() + static_cast<std::ptrdiff_t>(pos + 1 + it->record_size));
      if (ids == 2 && data[pos + length - 1] != id)
        warning(path + ": trailing record id at " + hex(dg.data_link + pos + length - 1) +
                " differs from the leading one");
      pos += length;
    }
  }

  void resolve_dependencies() {
    std::map<uint32_t, int> dgs;
    std::map<uint32_t, int> cgs;
    std::map<uint32_t, int> cns;
    for (size_t i = 0; i < r_.data_groups.size(); ++i) {
      const auto& dg = r_.data_groups[i];
      dgs[dg.offset] = static_cast<int>(i);
      for (size_t j = 0; j < dg.channel_groups.size(); ++j) {
        const auto& cg = dg.channel_groups[j];
        cgs[cg.offset] = static_cast<int>(j);
        for (size_t k = 0; k < cg.channels.size(); ++k)
          cns[cg.channels[k].offset] = static_cast<int>(k);
      }
    }
    const auto find = [](const std::map<uint32_t, int>& m, uint32_t link) {
      const auto it = m.find(link);
      return it == m.end() ? -1 : it->second;
    };
    for (auto& dg : r_.data_groups)
      for (auto& cg : dg.channel_groups)
        for (auto& cn : cg.channels)
          if (cn.dependency)
            for (const auto& l : cn.dependency->links)
              cn.dependency->targets.push_back({find(dgs, l.dg), find(cgs, l.cg), find(cns, l.cn)});
  }

  std::span<const uint8_t> f_;
  ReadFile& r_;
};

}  // namespace

// --- ReadFile --------------------------------------------------------------------------------

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
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                   std::istreambuf_iterator<char>());
  return read_bytes(bytes);
}


}  // namespace mdftest
