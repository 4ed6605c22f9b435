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

void need_rec(size_t rec_size, size_t at, size_t n) {
  if (at + n > rec_size) throw std::out_of_range("mdftest: value does not fit into the record");
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

void put_ordered(std::span<uint8_t> rec, size_t at, uint64_t v, size_t n, ByteOrder order) {
  need_rec(rec.size(), at, n);
  for (size_t i = 0; i < n; ++i) {
    const size_t dst = order == ByteOrder::intel ? at + i : at + n - 1 - i;
    rec[dst] = static_cast<uint8_t>(v >> (8 * i));
  }
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
  if (id.size() != 2) throw std::invalid_argument("mdftest::Image: block id must be 2 chars");
  const uint32_t at = append_zeros(std::max<size_t>(size, 4));
  bytes[at] = static_cast<uint8_t>(id[0]);
  bytes[at + 1] = static_cast<uint8_t>(id[1]);
  patch_u16(at + 2, size);
  return at;
}

uint32_t Image::append_text_block(std::string_view text) {
  const uint16_t size = to_u16(text.size() + 5, "TX block size");
  const uint32_t at = append_block("TX", size);
  std::copy(text.begin(), text.end(), bytes.begin() + at + 4);
  return at;
}

uint32_t Image::append_bytes(std::span<const uint8_t> data) {
  const uint32_t at = append_zeros(data.size());
  std::copy(data.begin(), data.end(), bytes.begin() + at);
  return at;
}

uint32_t Image::append_zeros(size_t count) {
  const size_t at = bytes.size();
  if (at + count > 0xFFFFFFFFu) throw std::length_error("mdftest::Image: beyond 4 GiB");
  bytes.resize(at + count);
  return static_cast<uint32_t>(at);
}

void Image::patch_u8(uint64_t at, uint8_t v) {
  need(at, 1);
  bytes[at] = v;
}
void Image::patch_u16(uint64_t at, uint16_t v) {
  need(at, 2);
  store_le(&bytes[at], v, 2);
}
void Image::patch_u32(uint64_t at, uint32_t v) {
  need(at, 4);
  store_le(&bytes[at], v, 4);
}
void Image::patch_u64(uint64_t at, uint64_t v) {
  need(at, 8);
  store_le(&bytes[at], v, 8);
}
void Image::patch_f64(uint64_t at, double v) {
  patch_u64(at, std::bit_cast<uint64_t>(v));
}
void Image::patch_bytes(uint64_t at, std::span<const uint8_t> data) {
  need(at, data.size());
  std::copy(data.begin(), data.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
}
void Image::patch_bytes(uint64_t at, std::initializer_list<uint8_t> data) {
  patch_bytes(at, std::span<const uint8_t>(data.begin(), data.size()));
}
void Image::patch_chars(uint64_t at, size_t width, std::string_view text) {
  if (text.size() > width)
    throw std::invalid_argument("mdftest: text \"" + std::string(text) + "\" longer than its " +
                                std::to_string(width) + "-char field");
  need(at, width);
  std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), width, uint8_t{0});
  std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
}

uint16_t Image::u16(uint64_t at) const {
  need(at, 2);
  return static_cast<uint16_t>(load_le(&bytes[at], 2));
}
uint32_t Image::u32(uint64_t at) const {
  need(at, 4);
  return static_cast<uint32_t>(load_le(&bytes[at], 4));
}

void Image::truncate(size_t new_size) {
  if (new_size < bytes.size()) bytes.resize(new_size);
}

// --- Record values ---------------------------------------------------------------------------

void put_bits(std::span<uint8_t> rec, unsigned first_bit, unsigned bits, uint64_t value,
              ByteOrder order) {
  check_bits(rec.size(), first_bit, bits);
  for (unsigned k = 0; k < bits; ++k) {
    const auto [byte, bit] = bit_place(first_bit, bits, k, order);
    const auto mask = static_cast<uint8_t>(1u << bit);
    if ((value >> k) & 1u)
      rec[byte] = static_cast<uint8_t>(rec[byte] | mask);
    else
      rec[byte] = static_cast<uint8_t>(rec[byte] & ~mask);
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

void put_f32(std::span<uint8_t> rec, size_t byte_offset, float v, ByteOrder order) {
  put_ordered(rec, byte_offset, std::bit_cast<uint32_t>(v), 4, order);
}
void put_f64(std::span<uint8_t> rec, size_t byte_offset, double v, ByteOrder order) {
  put_ordered(rec, byte_offset, std::bit_cast<uint64_t>(v), 8, order);
}
void put_raw(std::span<uint8_t> rec, size_t byte_offset, std::span<const uint8_t> data) {
  need_rec(rec.size(), byte_offset, data.size());
  std::copy(data.begin(), data.end(), rec.begin() + static_cast<std::ptrdiff_t>(byte_offset));
}
void put_raw(std::span<uint8_t> rec, size_t byte_offset, std::initializer_list<uint8_t> data) {
  put_raw(rec, byte_offset, std::span<const uint8_t>(data.begin(), data.size()));
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
template <size_t N>
ConversionPtr make_params(uint16_t type, const std::array<double, N>& p, std::string unit) {
  auto c = make_conv(type, std::move(unit));
  c->params.assign(p.begin(), p.end());
  return c;
}
}  // namespace

ConversionPtr linear(double offset, double factor, std::string unit) {
  return make_params<2>(cc::linear, {offset, factor}, std::move(unit));
}
ConversionPtr table(bool interpolate, std::vector<std::pair<double, double>> points,
                    std::string unit) {
  auto c = make_conv(interpolate ? cc::table_interp : cc::table, std::move(unit));
  c->table = std::move(points);
  return c;
}
ConversionPtr polynomial(std::array<double, 6> p, std::string unit) {
  return make_params(cc::polynomial, p, std::move(unit));
}
ConversionPtr exponential(std::array<double, 7> p, std::string unit) {
  return make_params(cc::exponential, p, std::move(unit));
}
ConversionPtr logarithmic(std::array<double, 7> p, std::string unit) {
  return make_params(cc::logarithmic, p, std::move(unit));
}
ConversionPtr rational(std::array<double, 6> p, std::string unit) {
  return make_params(cc::rational, p, std::move(unit));
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
ConversionPtr identity(std::string unit) {
  return make_conv(cc::identity, std::move(unit));
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

static std::vector<size_t> record_order(const DataGroup& dg) {
  std::vector<size_t> order;
  if (dg.record_ids == 0) {
    for (size_t g = 0; g < dg.channel_groups.size(); ++g)
      order.insert(order.end(), dg.channel_groups[g].records.size(), g);
  } else if (!dg.order.empty()) {
    order = dg.order;
  } else {
    for (size_t k = 0;; ++k) {
      bool any = false;
      for (size_t g = 0; g < dg.channel_groups.size(); ++g) {
        if (k < dg.channel_groups[g].records.size()) {
          order.push_back(g);
          any = true;
        }
      }
      if (!any) break;
    }
  }
  return order;
}

// --- build -----------------------------------------------------------------------------------

namespace {

uint32_t conversion_tail_size(const Conversion& c) {
  if (c.raw_tail) return static_cast<uint32_t>(c.raw_tail->size());
  switch (c.type) {
    case cc::table_interp:
    case cc::table:
      return static_cast<uint32_t>(c.table.size() * off::cc_table_stride);
    case cc::formula:
      return static_cast<uint32_t>(std::max<size_t>(256, c.formula.size() + 1));
    case cc::verbal:
      return static_cast<uint32_t>(c.verbal.size() * off::cc_verbal_stride);
    case cc::verbal_range:
      return static_cast<uint32_t>(c.ranges.size() * off::cc_range_stride);
    default:
      return static_cast<uint32_t>(c.params.size() * 8);
  }
}

size_t conversion_entries(const Conversion& c) {
  if (c.raw_tail) return 0;
  switch (c.type) {
    case cc::table_interp:
    case cc::table:
      return c.table.size();
    case cc::formula:
      return 0;
    case cc::verbal:
      return c.verbal.size();
    case cc::verbal_range:
      return c.ranges.size();
    default:
      return c.params.size();
  }
}

class Builder {
 public:
  explicit Builder(const FileModel& f) : f_(f) {}

  Built run() {
    b_.bytes.assign(off::id_size, 0);
    Fields{*this, 0, off::id_size}.all(id_fields, f_.id);
    write_header();
    uint32_t prev_dg = 0;
    b_.data_groups.resize(f_.data_groups.size());
    for (size_t i = 0; i < f_.data_groups.size(); ++i) {
      const uint32_t dg = write_data_group(f_.data_groups[i], b_.data_groups[i]);
      b_.patch_u32(prev_dg == 0 ? b_.header + off::hd_first_dg : prev_dg + off::dg_next, dg);
      prev_dg = dg;
      if (!f_.data_at_end) write_data(f_.data_groups[i], b_.data_groups[i]);
    }
    if (f_.data_at_end)
      for (size_t i = 0; i < f_.data_groups.size(); ++i)
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
      if (fits(field, width)) store_le(bld.b_.bytes.data() + at + field, v, width);
    }
    void u16(uint32_t field, uint16_t v) { num(field, 2, v); }
    void u32(uint32_t field, uint32_t v) { num(field, 4, v); }
    void real(uint32_t field, double v) {
      if (fits(field, 8)) bld.real(at + field, v);
    }
    void chars(uint32_t field, uint32_t width, const std::string& s) {
      if (s.size() > width)
        fail("text \"" + s + "\" longer than its " + std::to_string(width) + "-char field");
      if (fits(field, width)) bld.b_.patch_chars(at + field, width, s);
    }
    void link(uint32_t field, uint32_t v, const char* what) {
      if (v == 0) return;
      if (!fits(field, 4))
        fail(std::string(what) + " link does not fit a block of " + std::to_string(size) +
             " bytes");
      bld.b_.patch_u32(at + field, v);
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

  void real(uint32_t at, double v) {
    if (f_.encode_real)
      b_.patch_bytes(at, f_.encode_real(v));
    else
      b_.patch_f64(at, v);
  }

  uint32_t text(const Text& t) {
    if (!t) return 0;
    if (const auto it = b_.shared_blocks.find(t.id()); it != b_.shared_blocks.end())
      return it->second;
    const uint32_t at = b_.append_text_block(t.str());
    b_.shared_blocks[t.id()] = at;
    return at;
  }

  void write_header() {
    const Header& h = f_.header;
    b_.header = b_.append_block("HD", h.block_size);
    Fields w{*this, b_.header, h.block_size};
    w.u16(off::hd_dg_count, h.dg_count ? *h.dg_count : to_u16(f_.data_groups.size(), "DG count"));
    w.all(header_fields, static_cast<const HeaderFields&>(h));
    b_.header_comment = text(h.comment);
    w.link(off::hd_comment, b_.header_comment, "HD comment");
    if (h.program) {
      b_.program = b_.append_block("PR", to_u16(h.program->size() + 4, "PR size"));
      b_.patch_bytes(b_.program + 4, *h.program);
      w.link(off::hd_program, b_.program, "HD program");
    }
  }

  uint32_t write_data_group(const DataGroup& d, BuiltDataGroup& out) {
    out.offset = b_.append_block("DG", 28);
    Fields w{*this, out.offset, 28};
    w.u16(off::dg_cg_count, to_u16(d.channel_groups.size(), "CG count"));
    w.u16(off::dg_record_ids, d.record_ids);
    if (d.trigger) {
      const Trigger& t = *d.trigger;
      const uint16_t size =
          t.block_size ? *t.block_size : to_u16(10 + 24 * t.events.size(), "TR size");
      out.trigger = b_.append_block("TR", size);
      Fields tw{*this, out.trigger, size};
      tw.u16(off::tr_count, t.event_count ? *t.event_count : to_u16(t.events.size(), "events"));
      for (size_t k = 0; k < t.events.size(); ++k) {
        const auto e = static_cast<uint32_t>(off::tr_events + 24 * k);
        tw.real(e, t.events[k].time);
        tw.real(e + 8, t.events[k].pre_time);
        tw.real(e + 16, t.events[k].post_time);
      }
      out.trigger_comment = text(t.comment);
      tw.link(off::tr_comment, out.trigger_comment, "TR comment");
      w.link(off::dg_trigger, out.trigger, "DG trigger");
    }
    uint32_t prev = 0;
    out.channel_groups.resize(d.channel_groups.size());
    for (size_t i = 0; i < d.channel_groups.size(); ++i) {
      const uint32_t cg = write_channel_group(d.channel_groups[i], out.channel_groups[i]);
      b_.patch_u32(prev == 0 ? out.offset + off::dg_first_cg : prev + off::cg_next, cg);
      prev = cg;
    }
    return out.offset;
  }

  uint32_t write_channel_group(const ChannelGroup& g, BuiltChannelGroup& out) {
    out.offset = b_.append_block("CG", g.block_size);
    Fields w{*this, out.offset, g.block_size};
    w.u16(off::cg_record_id, g.record_id);
    w.u16(off::cg_cn_count, to_u16(g.channels.size(), "CN count"));
    w.u16(off::cg_record_size, g.record_size);
    w.u32(off::cg_record_count,
          g.record_count ? *g.record_count : static_cast<uint32_t>(g.records.size()));
    out.comment = text(g.comment);
    w.link(off::cg_comment, out.comment, "CG comment");
    uint32_t prev = 0;
    for (const SampleReduction& s : g.sample_reductions) {
      const uint32_t sr = b_.append_block("SR", 24);
      Fields sw{*this, sr, 24};
      sw.u32(off::sr_count, s.sample_count);
      sw.real(off::sr_interval, s.interval);
      const uint32_t data = s.data.empty() ? 0 : b_.append_bytes(s.data);
      sw.link(off::sr_data, data, "SR data");
      if (prev == 0)
        w.link(off::cg_first_sr, sr, "CG sample reduction");
      else
        b_.patch_u32(prev + off::sr_next, sr);
      prev = sr;
      out.sample_reductions.push_back(sr);
    }
    prev = 0;
    out.channels.resize(g.channels.size());
    for (size_t i = 0; i < g.channels.size(); ++i) {
      const uint32_t cn = write_channel(g.channels[i], out.channels[i]);
      b_.patch_u32(prev == 0 ? out.offset + off::cg_first_cn : prev + off::cn_next, cn);
      prev = cn;
    }
    return out.offset;
  }

  uint32_t write_channel(const Channel& c, BuiltChannel& out) {
    out.offset = b_.append_block("CN", c.block_size);
    Fields w{*this, out.offset, c.block_size};
    w.all(channel_fields, static_cast<const ChannelFields&>(c));
    out.comment = text(c.comment);
    w.link(off::cn_comment, out.comment, "CN comment");
    out.long_name = text(c.long_name);
    w.link(off::cn_long_name, out.long_name, "CN long name");
    // The display name link and the additional byte offset exist only in blocks of 228+ bytes.
    if (c.display_name && c.block_size < 228) fail("CN display name needs a block of 228 bytes");
    out.display_name = text(c.display_name);
    w.link(off::cn_display_name, out.display_name, "CN display name");
    if (c.conversion) {
      out.conversion = write_conversion(*c.conversion);
      w.link(off::cn_conversion, out.conversion, "CN conversion");
    }
    if (c.extension) {
      out.extension = write_extension(*c.extension);
      w.link(off::cn_extension, out.extension, "CN extension");
    }
    if (c.dependency) {
      out.dependency = write_dependency(c.dependency);
      w.link(off::cn_dependency, out.dependency, "CN dependency");
    }
    return out.offset;
  }

  uint32_t write_conversion(const Conversion& c) {
    if (const auto it = b_.shared_blocks.find(&c); it != b_.shared_blocks.end()) return it->second;
    const uint16_t size =
        c.block_size ? *c.block_size : to_u16(off::cc_params + conversion_tail_size(c), "CC size");
    const uint32_t at = b_.append_block("CC", size);
    b_.shared_blocks[&c] = at;
    Fields w{*this, at, size};
    w.all(conversion_fields, static_cast<const ConversionFields&>(c));
    w.u16(off::cc_count,
          c.param_count ? *c.param_count : to_u16(conversion_entries(c), "CC entries"));
    const uint32_t p = off::cc_params;
    if (c.raw_tail) {
      const size_t n = std::min<size_t>(c.raw_tail->size(), size > p ? size - p : 0);
      b_.patch_bytes(at + p, std::span<const uint8_t>(c.raw_tail->data(), n));
    } else if (c.type == cc::table_interp || c.type == cc::table) {
      for (size_t i = 0; i < c.table.size(); ++i) {
        const auto e = static_cast<uint32_t>(p + off::cc_table_stride * i);
        w.real(e, c.table[i].first);
        w.real(e + 8, c.table[i].second);
      }
    } else if (c.type == cc::formula) {
      if (size > p) {
        const uint32_t width = size - p;
        if (c.formula.size() > width) fail("formula longer than its CC block");
        b_.patch_chars(at + p, width, c.formula);
      }
    } else if (c.type == cc::verbal) {
      for (size_t i = 0; i < c.verbal.size(); ++i) {
        const auto e = static_cast<uint32_t>(p + off::cc_verbal_stride * i);
        w.real(e, c.verbal[i].value);
        w.chars(e + 8, 32, c.verbal[i].text);
      }
    } else if (c.type == cc::verbal_range) {
      for (size_t i = 0; i < c.ranges.size(); ++i) {
        const auto e = static_cast<uint32_t>(p + off::cc_range_stride * i);
        w.real(e, c.ranges[i].lower);
        w.real(e + 8, c.ranges[i].upper);
      }
      // The entry texts follow the CC block.
      for (size_t i = 0; i < c.ranges.size(); ++i) {
        const auto e = static_cast<uint32_t>(p + off::cc_range_stride * i);
        const uint32_t tx = c.ranges[i].text ? b_.append_text_block(*c.ranges[i].text) : 0;
        w.link(e + 16, tx, "CC range text");
      }
    } else {
      for (size_t i = 0; i < c.params.size(); ++i)
        w.real(static_cast<uint32_t>(p + 8 * i), c.params[i]);
    }
    return at;
  }

  uint32_t write_extension(const Extension& e) {
    if (const auto it = b_.shared_blocks.find(&e); it != b_.shared_blocks.end()) return it->second;
    const uint16_t size =
        e.block_size ? *e.block_size : to_u16(std::max<size_t>(128, 6 + e.record.size()), "CE");
    const uint32_t at = b_.append_block("CE", size);
    b_.shared_blocks[&e] = at;
    Fields w{*this, at, size};
    w.u16(off::ce_type, e.type);
    const size_t n = std::min<size_t>(e.record.size(), size > off::ce_record ? size - 6u : 0u);
    b_.patch_bytes(at + off::ce_record, std::span<const uint8_t>(e.record.data(), n));
    return at;
  }

  uint32_t write_dependency(const DependencyPtr& d) {
    if (const auto it = b_.shared_blocks.find(d.get()); it != b_.shared_blocks.end())
      return it->second;
    const uint16_t size =
        d->block_size ? *d->block_size : to_u16(8 + 12 * d->targets.size(), "CD size");
    const uint32_t at = b_.append_block("CD", size);
    b_.shared_blocks[d.get()] = at;
    Fields w{*this, at, size};
    w.u16(off::cd_type, d->type);
    w.u16(off::cd_count, d->count ? *d->count : to_u16(d->targets.size(), "CD count"));
    pending_dependencies_.emplace_back(at, d.get());
    return at;
  }

  // Dependency links can point forward, so they are filled in once everything is placed.
  void resolve_dependency(uint32_t at, const Dependency& d) {
    const uint32_t size = b_.u16(at + off::block_size);
    Fields w{*this, at, size};
    for (size_t k = 0; k < d.targets.size(); ++k) {
      const DependencyTarget& t = d.targets[k];
      uint32_t dg = 0, cg = 0, cn = 0;
      if (t.dg >= 0) {
        if (static_cast<size_t>(t.dg) >= b_.data_groups.size()) fail("CD: no such data group");
        const BuiltDataGroup& bd = b_.data_groups[static_cast<size_t>(t.dg)];
        dg = bd.offset;
        if (t.cg >= 0) {
          if (static_cast<size_t>(t.cg) >= bd.channel_groups.size()) fail("CD: no such CG");
          const BuiltChannelGroup& bg = bd.channel_groups[static_cast<size_t>(t.cg)];
          cg = bg.offset;
          if (t.cn >= 0) {
            if (static_cast<size_t>(t.cn) >= bg.channels.size()) fail("CD: no such channel");
            cn = bg.channels[static_cast<size_t>(t.cn)].offset;
          }
        }
      }
      const auto e = static_cast<uint32_t>(off::cd_links + 12 * k);
      w.link(e, dg, "CD data group");
      w.link(e + 4, cg, "CD channel group");
      w.link(e + 8, cn, "CD channel");
    }
  }

  void write_data(const DataGroup& d, BuiltDataGroup& out) {
    for (auto& g : out.channel_groups) g.records.clear();
    const uint32_t start = b_.size();
    if (d.raw_data) {
      b_.append_bytes(*d.raw_data);
    } else {
      if (d.record_ids > 2) fail("record id count above 2 needs raw_data");
      const std::vector<size_t> order = record_order(d);
      std::vector<size_t> next(d.channel_groups.size(), 0);
      for (const size_t g : order) {
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
    out.data = start;
    out.data_size = b_.size() - start;
    const uint32_t link = d.data_link ? *d.data_link : (out.data_size == 0 ? 0 : start);
    b_.patch_u32(out.offset + off::dg_data, link);
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
