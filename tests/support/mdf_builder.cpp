// Test-side MDF 3.x file builder; see mdf_builder.h.
#include "support/mdf_builder.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <variant>

namespace mdftest {

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::invalid_argument("mdftest::build: " + what);
}

uint16_t to_u16(size_t v, const char* what) {
  if (v > 0xFFFF) fail(std::string(what) + " does not fit 16 bits");
  return static_cast<uint16_t>(v);
}

void store_le(uint8_t* p, uint64_t v, size_t n) {
  for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint64_t load_le(const uint8_t* p, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v |= static_cast<uint64_t>(p[i]) << (8 * i);
  return v;
}

// Byte and bit within the record of bit k of a field.
std::pair<size_t, unsigned> bit_place(unsigned first_bit, unsigned bits, unsigned k,
                                      ByteOrder order) {
  if (order == ByteOrder::intel) {
    const size_t p = size_t{first_bit} + k;
    return {p / 8, static_cast<unsigned>(p % 8)};
  }
  const size_t byte_off = first_bit / 8;
  const unsigned bit_off = first_bit % 8;
  const size_t span = (bit_off + bits + 7) / 8;
  const unsigned q = bit_off + k;
  return {byte_off + span - 1 - q / 8, q % 8};
}

void check_bits(size_t rec_size, unsigned first_bit, unsigned bits) {
  if (bits == 0 || bits > 64) throw std::out_of_range("mdftest: bit count must be 1..64");
  // The same for both byte orders: first_bit / 8 + (first_bit % 8 + bits + 7) / 8.
  const size_t end_byte = (size_t{first_bit} + bits + 7) / 8;
  if (end_byte > rec_size)
    throw std::out_of_range("mdftest: bit field does not fit into the record");
}

}  // namespace

// --- Image -----------------------------------------------------------------------------------

void Image::need(uint64_t at, size_t n) const {
  if (at > bytes.size() || n > bytes.size() - at)
    throw std::out_of_range("mdftest::Image: access at " + std::to_string(at) + "+" +
                            std::to_string(n) + " outside " + std::to_string(bytes.size()) +
                            " bytes");
}

uint32_t Image::append_block(std::string_view id, uint16_t size) {
  const uint32_t at = append_bytes(std::vector<uint8_t>(std::max<size_t>(size, 4)));
  std::copy(id.begin(), id.end(), bytes.begin() + at);
  patch_u16(at + 2, size);
  return at;
}

uint32_t Image::append_bytes(std::span<const uint8_t> data) {
  if (bytes.size() + data.size() > 0xFFFFFFFFu) throw std::length_error("mdftest: beyond 4 GiB");
  bytes.insert(bytes.end(), data.begin(), data.end());
  return static_cast<uint32_t>(bytes.size() - data.size());
}

void Image::patch(uint64_t at, uint64_t v, size_t n) {
  need(at, n);
  store_le(&bytes[at], v, n);
}
void Image::patch_bytes(uint64_t at, std::span<const uint8_t> data) {
  need(at, data.size());
  std::copy(data.begin(), data.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
}
void Image::patch_chars(uint64_t at, size_t width, std::string_view text) {
  if (text.size() > width)
    throw std::invalid_argument("mdftest: text \"" + std::string(text) + "\" longer than its " +
                                std::to_string(width) + "-char field");
  std::vector<uint8_t> field(width, 0);
  std::copy(text.begin(), text.end(), field.begin());
  patch_bytes(at, field);
}
uint32_t Image::u32(uint64_t at) const {
  need(at, 4);
  return static_cast<uint32_t>(load_le(&bytes[at], 4));
}

// --- Record values ---------------------------------------------------------------------------

void put_bits(std::span<uint8_t> rec, unsigned first_bit, unsigned bits, uint64_t value,
              ByteOrder order) {
  check_bits(rec.size(), first_bit, bits);
  for (unsigned k = 0; k < bits; ++k) {
    const auto [byte, bit] = bit_place(first_bit, bits, k, order);
    rec[byte] = static_cast<uint8_t>((rec[byte] & ~(1u << bit)) | ((value >> k) & 1u) << bit);
  }
}

uint64_t get_bits(std::span<const uint8_t> rec, unsigned first_bit, unsigned bits,
                  ByteOrder order) {
  check_bits(rec.size(), first_bit, bits);
  uint64_t v = 0;
  for (unsigned k = 0; k < bits; ++k) {
    const auto [byte, bit] = bit_place(first_bit, bits, k, order);
    if ((rec[byte] >> bit) & 1u) v |= uint64_t{1} << k;
  }
  return v;
}

// A float is a bit field of whole bytes.
void put_f32(std::span<uint8_t> rec, size_t byte_offset, float v, ByteOrder order) {
  put_bits(rec, static_cast<unsigned>(8 * byte_offset), 32, std::bit_cast<uint32_t>(v), order);
}
void put_f64(std::span<uint8_t> rec, size_t byte_offset, double v, ByteOrder order) {
  put_bits(rec, static_cast<unsigned>(8 * byte_offset), 64, std::bit_cast<uint64_t>(v), order);
}
void put_raw(std::span<uint8_t> rec, size_t byte_offset, std::span<const uint8_t> data) {
  if (byte_offset + data.size() > rec.size())
    throw std::out_of_range("mdftest: value does not fit into the record");
  std::copy(data.begin(), data.end(), rec.begin() + static_cast<std::ptrdiff_t>(byte_offset));
}

// --- Description helpers ---------------------------------------------------------------------

Text::Text(const char* s) {
  if (s != nullptr) p_ = std::make_shared<const std::string>(s);
}
Text::Text(std::string s) : p_(std::make_shared<const std::string>(std::move(s))) {}
const std::string& Text::str() const {
  static const std::string empty;
  return p_ ? *p_ : empty;
}

namespace {
ConversionPtr make_conv(uint16_t type, std::string unit) {
  auto c = std::make_shared<Conversion>();
  c->type = type;
  c->unit = std::move(unit);
  return c;
}
}  // namespace

ConversionPtr params(uint16_t type, std::vector<double> p, std::string unit) {
  auto c = make_conv(type, std::move(unit));
  c->params = std::move(p);
  return c;
}
ConversionPtr table(bool interpolate, std::vector<std::pair<double, double>> points,
                    std::string unit) {
  auto c = make_conv(interpolate ? cc::table_interp : cc::table, std::move(unit));
  c->table = std::move(points);
  return c;
}
ConversionPtr formula(std::string text, std::string unit) {
  auto c = make_conv(cc::formula, std::move(unit));
  c->formula = std::move(text);
  return c;
}
ConversionPtr verbal_table(std::vector<VerbalEntry> entries, std::string unit) {
  auto c = make_conv(cc::verbal, std::move(unit));
  c->verbal = std::move(entries);
  return c;
}
ConversionPtr range_table(std::vector<RangeEntry> entries, std::string unit) {
  auto c = make_conv(cc::verbal_range, std::move(unit));
  c->ranges = std::move(entries);
  return c;
}
ConversionPtr raw_conversion(uint16_t type, uint16_t param_count, std::vector<uint8_t> tail,
                             std::string unit) {
  auto c = make_conv(type, std::move(unit));
  c->raw_tail = std::move(tail);
  c->param_count = param_count;
  return c;
}

ExtensionPtr extension(uint16_t type, std::vector<uint8_t> record) {
  auto e = std::make_shared<Extension>();
  e->type = type;
  e->record = std::move(record);
  return e;
}

DependencyPtr dependency(uint16_t type, std::vector<DependencyTarget> targets) {
  auto d = std::make_shared<Dependency>();
  d->type = type;
  d->targets = std::move(targets);
  return d;
}

Channel& ChannelGroup::add_channel(std::string name, uint16_t first_bit, uint16_t bits,
                                   uint16_t data_type, uint16_t channel_type) {
  Channel& c = channels.emplace_back();
  c.name = std::move(name);
  c.first_bit = first_bit;
  c.bit_count = bits;
  c.data_type = data_type;
  c.channel_type = channel_type;
  return c;
}

std::vector<uint8_t>& ChannelGroup::add_record() {
  return records.emplace_back(record_size, uint8_t{0});
}

ChannelGroup& DataGroup::add_channel_group(uint16_t record_size, uint16_t record_id) {
  ChannelGroup& g = channel_groups.emplace_back();
  g.record_size = record_size;
  g.record_id = record_id;
  return g;
}

DataGroup& FileModel::add_data_group(uint16_t record_ids) {
  DataGroup& d = data_groups.emplace_back();
  d.record_ids = record_ids;
  return d;
}

// --- build -----------------------------------------------------------------------------------

namespace {

// The channel-group index of each record of a data section, in file order.
std::vector<size_t> record_order(const DataGroup& dg) {
  if (dg.record_ids != 0 && !dg.order.empty()) return dg.order;
  std::vector<size_t> order;
  const size_t groups = dg.channel_groups.size();
  for (size_t k = 0, any = 1; any != 0; ++k) {
    any = 0;
    for (size_t g = 0; g < groups; ++g) {
      const size_t n = dg.channel_groups[g].records.size();
      if (dg.record_ids == 0 && k == 0) order.insert(order.end(), n, g);
      if (dg.record_ids != 0 && k < n) {
        order.push_back(g);
        any = 1;
      }
    }
  }
  return order;
}

// The tail of a CC block: its entries and their stride (type 10: the formula's bytes).
std::pair<size_t, uint32_t> conversion_tail(const Conversion& c) {
  if (c.raw_tail) return {0, static_cast<uint32_t>(c.raw_tail->size())};
  switch (c.type) {
    case cc::table_interp:
    case cc::table:
      return {c.table.size(), off::cc_table_stride};
    case cc::formula:
      return {0, static_cast<uint32_t>(std::max<size_t>(256, c.formula.size() + 1))};
    case cc::verbal:
      return {c.verbal.size(), off::cc_verbal_stride};
    case cc::verbal_range:
      return {c.ranges.size(), off::cc_range_stride};
    default:
      return {c.params.size(), 8};
  }
}

class Builder {
 public:
  explicit Builder(const FileModel& f) : f_(f) {}

  Built run() {
    b_.bytes.assign(off::id_size, 0);
    Fields{*this, 0, off::id_size}.all(id_fields, f_.id);
    write_header();
    uint32_t prev_dg = b_.header + off::hd_first_dg;
    b_.data_groups.resize(f_.data_groups.size());
    for (size_t i = 0; i < f_.data_groups.size(); ++i) {
      const uint32_t dg = write_data_group(f_.data_groups[i], b_.data_groups[i]);
      b_.patch_u32(prev_dg, dg);
      prev_dg = dg + off::dg_next;
      if (!f_.data_at_end) write_data(f_.data_groups[i], b_.data_groups[i]);
    }
    for (size_t i = 0; f_.data_at_end && i < f_.data_groups.size(); ++i)
      write_data(f_.data_groups[i], b_.data_groups[i]);
    for (const auto& [at, dep] : pending_dependencies_) resolve_dependency(at, *dep);
    return std::move(b_);
  }

 private:
  // Writes fields of one block; fields that do not fit into the block's size are skipped, except
  // links to blocks, which are an error (the test asked for a link the block cannot hold).
  struct Fields {
    Builder& bld;
    uint32_t at;
    uint32_t size;
    bool fits(uint32_t field, uint32_t width) const { return field + width <= size; }
    void num(uint32_t field, uint32_t width, uint64_t v) {
      if (fits(field, width)) bld.b_.patch(at + field, v, width);
    }
    void real(uint32_t field, double v) {
      if (!fits(field, 8)) return;
      if (bld.f_.encode_real)
        bld.b_.patch_bytes(at + field, bld.f_.encode_real(v));
      else
        bld.b_.patch_f64(at + field, v);
    }
    void chars(uint32_t field, uint32_t width, const std::string& s) {
      if (s.size() > width)
        fail("text \"" + s + "\" longer than its " + std::to_string(width) + "-char field");
      if (fits(field, width)) bld.b_.patch_chars(at + field, width, s);
    }
    void link(uint32_t field, uint32_t v, const char* what) {
      if (v != 0 && !fits(field, 4))
        fail(std::string(what) + " link does not fit a block of " + std::to_string(size));
      if (v != 0) bld.b_.patch_u32(at + field, v);
    }
    // Writes the value fields of `s` listed in `table`.
    template <class S, size_t N>
    void all(const Field<S> (&table)[N], const S& s) {
      for (const Field<S>& f : table)
        std::visit(
            [&](auto m) {
              using T = std::remove_cvref_t<decltype(s.*m)>;
              if constexpr (std::is_same_v<T, std::string>)
                chars(f.at, f.width, s.*m);
              else if constexpr (std::is_same_v<T, double>)
                real(f.at, s.*m);
              else
                num(f.at, sizeof(T), static_cast<uint64_t>(s.*m));
            },
            f.member);
    }
  };

  // A new block of the given identifier and size, with its field writer.
  Fields block(std::string_view id, size_t size, uint32_t* where = nullptr) {
    const uint32_t at = b_.append_block(id, to_u16(size, "block size"));
    if (where != nullptr) *where = at;
    return Fields{*this, at, static_cast<uint32_t>(size)};
  }

  // A TX block (text length + 5 bytes: the text and a zero byte), written once per Text.
  uint32_t text(const Text& t) {
    if (!t) return 0;
    if (const auto it = b_.shared_blocks.find(t.id()); it != b_.shared_blocks.end())
      return it->second;
    return b_.shared_blocks[t.id()] = raw_text(t.str());
  }
  uint32_t raw_text(const std::string& s) {
    Fields w = block("TX", s.size() + 5);
    b_.patch_bytes(w.at + 4, std::span(reinterpret_cast<const uint8_t*>(s.data()), s.size()));
    return w.at;
  }

  void write_header() {
    const Header& h = f_.header;
    Fields w = block("HD", h.block_size, &b_.header);
    w.num(off::hd_dg_count, 2, h.dg_count ? *h.dg_count : to_u16(f_.data_groups.size(), "DGs"));
    w.all(header_fields, static_cast<const HeaderFields&>(h));
    w.link(off::hd_comment, b_.header_comment = text(h.comment), "HD comment");
    if (h.program) {
      block("PR", h.program->size() + 4, &b_.program);
      b_.patch_bytes(b_.program + 4, *h.program);
      w.link(off::hd_program, b_.program, "HD program");
    }
  }

  uint32_t write_data_group(const DataGroup& d, BuiltDataGroup& out) {
    Fields w = block("DG", 28, &out.offset);
    w.num(off::dg_cg_count, 2, to_u16(d.channel_groups.size(), "CG count"));
    w.num(off::dg_record_ids, 2, d.record_ids);
    if (d.trigger) {
      const Trigger& t = *d.trigger;
      Fields tw = block("TR", t.block_size.value_or(10 + 24 * t.events.size()), &out.trigger);
      tw.num(off::tr_count, 2, t.event_count.value_or(t.events.size()));
      for (size_t k = 0; k < t.events.size(); ++k) {
        const auto e = static_cast<uint32_t>(off::tr_events + 24 * k);
        tw.real(e, t.events[k].time);
        tw.real(e + 8, t.events[k].pre_time);
        tw.real(e + 16, t.events[k].post_time);
      }
      tw.link(off::tr_comment, out.trigger_comment = text(t.comment), "TR comment");
      w.link(off::dg_trigger, out.trigger, "DG trigger");
    }
    uint32_t prev = out.offset + off::dg_first_cg;
    out.channel_groups.resize(d.channel_groups.size());
    for (size_t i = 0; i < d.channel_groups.size(); ++i) {
      b_.patch_u32(prev, write_channel_group(d.channel_groups[i], out.channel_groups[i]));
      prev = out.channel_groups[i].offset + off::cg_next;
    }
    return out.offset;
  }

  uint32_t write_channel_group(const ChannelGroup& g, BuiltChannelGroup& out) {
    Fields w = block("CG", g.block_size, &out.offset);
    w.num(off::cg_record_id, 2, g.record_id);
    w.num(off::cg_cn_count, 2, to_u16(g.channels.size(), "CN count"));
    w.num(off::cg_record_size, 2, g.record_size);
    w.num(off::cg_record_count, 4, g.record_count ? *g.record_count : g.records.size());
    w.link(off::cg_comment, out.comment = text(g.comment), "CG comment");
    uint32_t prev = 0;
    for (const SampleReduction& s : g.sample_reductions) {
      uint32_t sr = 0;
      Fields sw = block("SR", 24, &sr);
      sw.num(off::sr_count, 4, s.sample_count);
      sw.real(off::sr_interval, s.interval);
      sw.link(off::sr_data, s.data.empty() ? 0 : b_.append_bytes(s.data), "SR data");
      if (prev == 0) w.link(off::cg_first_sr, sr, "CG sample reduction");
      if (prev != 0) b_.patch_u32(prev + off::sr_next, sr);
      out.sample_reductions.push_back(prev = sr);
    }
    prev = out.offset + off::cg_first_cn;
    out.channels.resize(g.channels.size());
    for (size_t i = 0; i < g.channels.size(); ++i) {
      b_.patch_u32(prev, write_channel(g.channels[i], out.channels[i]));
      prev = out.channels[i].offset + off::cn_next;
    }
    return out.offset;
  }

  uint32_t write_channel(const Channel& c, BuiltChannel& out) {
    Fields w = block("CN", c.block_size, &out.offset);
    w.all(channel_fields, static_cast<const ChannelFields&>(c));
    w.link(off::cn_comment, out.comment = text(c.comment), "CN comment");
    w.link(off::cn_long_name, out.long_name = text(c.long_name), "CN long name");
    // The display name link exists only in blocks of 228+ bytes.
    if (c.display_name && c.block_size < 228) fail("CN display name needs a block of 228 bytes");
    w.link(off::cn_display_name, out.display_name = text(c.display_name), "CN display name");
    if (c.conversion) out.conversion = write_conversion(*c.conversion);
    if (c.extension) out.extension = write_extension(*c.extension);
    if (c.dependency) out.dependency = write_dependency(*c.dependency);
    w.link(off::cn_conversion, out.conversion, "CN conversion");
    w.link(off::cn_extension, out.extension, "CN extension");
    w.link(off::cn_dependency, out.dependency, "CN dependency");
    return out.offset;
  }

  // A block shared by several channels is written once, where first met.
  uint32_t* shared(const void* p) {
    const auto it = b_.shared_blocks.find(p);
    return it == b_.shared_blocks.end() ? nullptr : &it->second;
  }

  uint32_t write_conversion(const Conversion& c) {
    if (const uint32_t* at = shared(&c)) return *at;
    const auto [entries, stride] = conversion_tail(c);
    const uint32_t p = off::cc_params;
    Fields w = block("CC", p + (c.raw_tail || c.type == cc::formula ? 1 : entries) * stride,
                     &b_.shared_blocks[&c]);
    w.all(conversion_fields, static_cast<const ConversionFields&>(c));
    w.num(off::cc_count, 2, c.param_count ? *c.param_count : to_u16(entries, "CC entries"));
    if (c.raw_tail) b_.patch_bytes(w.at + p, *c.raw_tail);
    if (c.type == cc::formula && !c.raw_tail) b_.patch_chars(w.at + p, stride, c.formula);
    for (size_t i = 0; i < entries; ++i) {
      const auto e = static_cast<uint32_t>(p + stride * i);
      if (c.type == cc::table_interp || c.type == cc::table) {
        w.real(e, c.table[i].first);
        w.real(e + 8, c.table[i].second);
      } else if (c.type == cc::verbal) {
        w.real(e, c.verbal[i].value);
        w.chars(e + 8, 32, c.verbal[i].text);
      } else if (c.type == cc::verbal_range) {
        w.real(e, c.ranges[i].lower);
        w.real(e + 8, c.ranges[i].upper);
      } else {
        w.real(e, c.params[i]);
      }
    }
    // The texts of a verbal range table follow the CC block.
    for (size_t i = 0; c.type == cc::verbal_range && i < entries; ++i) {
      const auto& t = c.ranges[i].text;
      w.link(static_cast<uint32_t>(p + stride * i + 16), t ? raw_text(*t) : 0, "CC range text");
    }
    return w.at;
  }

  uint32_t write_extension(const Extension& e) {
    if (const uint32_t* at = shared(&e)) return *at;
    const size_t size = e.block_size ? *e.block_size : std::max<size_t>(128, 6 + e.record.size());
    Fields w = block("CE", size, &b_.shared_blocks[&e]);
    w.num(off::ce_type, 2, e.type);
    const size_t n = std::min<size_t>(e.record.size(), size > off::ce_record ? size - 6u : 0u);
    b_.patch_bytes(w.at + off::ce_record, std::span<const uint8_t>(e.record.data(), n));
    return w.at;
  }

  uint32_t write_dependency(const Dependency& d) {
    if (const uint32_t* at = shared(&d)) return *at;
    Fields w = block("CD", 8 + 12 * d.targets.size(), &b_.shared_blocks[&d]);
    w.num(off::cd_type, 2, d.type);
    w.num(off::cd_count, 2, d.targets.size());
    pending_dependencies_.emplace_back(w.at, &d);
    return w.at;
  }

  // Dependency links can point forward, so they are filled in once everything is placed.
  void resolve_dependency(uint32_t at, const Dependency& d) {
    for (size_t k = 0; k < d.targets.size(); ++k) {
      const DependencyTarget& t = d.targets[k];
      const auto e = static_cast<uint32_t>(at + off::cd_links + 12 * k);
      const auto pick = [](const auto& v, int i) -> const auto& {
        if (i < 0 || static_cast<size_t>(i) >= v.size()) fail("CD: no such block");
        return v[static_cast<size_t>(i)];
      };
      if (t.dg < 0) continue;
      const BuiltDataGroup& bd = pick(b_.data_groups, t.dg);
      b_.patch_u32(e, bd.offset);
      if (t.cg < 0) continue;
      const BuiltChannelGroup& bg = pick(bd.channel_groups, t.cg);
      b_.patch_u32(e + 4, bg.offset);
      if (t.cn >= 0) b_.patch_u32(e + 8, pick(bg.channels, t.cn).offset);
    }
  }

  void write_data(const DataGroup& d, BuiltDataGroup& out) {
    out.data = b_.size();
    if (d.raw_data)
      b_.append_bytes(*d.raw_data);
    else
      write_records(d, out);
    out.data_size = b_.size() - out.data;
    b_.patch_u32(out.offset + off::dg_data, out.data_size == 0 ? 0 : out.data);
  }

  void write_records(const DataGroup& d, BuiltDataGroup& out) {
    if (d.record_ids > 2) fail("record id count above 2");
    std::vector<size_t> next(d.channel_groups.size(), 0);
    for (const size_t g : record_order(d)) {
      if (g >= d.channel_groups.size()) fail("record order names a missing channel group");
      const ChannelGroup& cg = d.channel_groups[g];
      if (next[g] >= cg.records.size()) fail("record order asks for more records than given");
      const auto id = static_cast<uint8_t>(cg.record_id & 0xFF);
      out.channel_groups[g].records.push_back(b_.size());
      if (d.record_ids >= 1) b_.bytes.push_back(id);
      b_.append_bytes(cg.records[next[g]++]);
      if (d.record_ids == 2) b_.bytes.push_back(id);
    }
    for (size_t g = 0; g < next.size(); ++g)
      if (next[g] != d.channel_groups[g].records.size())
        fail("record order leaves records of a channel group unused");
  }

  const FileModel& f_;
  Built b_;
  std::vector<std::pair<uint32_t, const Dependency*>> pending_dependencies_;
};

}  // namespace

Built build(const FileModel& file) {
  for (const DataGroup& d : file.data_groups)
    for (const ChannelGroup& g : d.channel_groups)
      if (!g.sample_reductions.empty() && g.block_size < 30)
        fail("sample reductions need a CG of at least 30 bytes");
  return Builder(file).run();
}

void write_file(const std::filesystem::path& path, std::span<const uint8_t> bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("mdftest: cannot write " + path.string());
}

std::vector<uint8_t> load_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("mdftest: cannot open " + path.string());
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace mdftest
