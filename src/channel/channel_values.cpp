// The channel value functions: Get (record at cursor + offset), Set (current record), Read
// (next record) and Write (next record, stored as it is left) for the four value kinds raw
// bytes, raw as double, raw as integer and physical value. Decoding and encoding statuses are
// returned, not raised.
#include <cstdint>
#include <span>

#include "channel/channel_node.h"
#include "channel/channel_steps.h"
#include "channel/decode.h"
#include "channel/decode_array.h"
#include "channel/encode.h"
#include "frame/api.h"
#include "group/group.h"
#include "group/record_runs.h"
#include "storage/io.h"

namespace korvel {
namespace {

constexpr const char* kUnit = "MDFCHN1";

int16_t bad_channel() {
  return raise(MDF_ERR_BAD_CHANNEL, "");
}

std::span<const uint8_t> record_of(channelnode* ch) {
  return record_span(ch->group);
}
std::span<uint8_t> writable_record_of(channelnode* ch) {
  return record_span(ch->group);
}
const uint8_t* conversion_of(channelnode* ch) {
  return ch->cc != nullptr ? ch->cc->image : nullptr;
}

// Raw bytes can only be handed out for values that start and end on byte boundaries.
bool byte_aligned(channelnode* ch) {
  const ValueLayout l = value_layout(ch->cn->image);
  return l.complete && l.bit_offset == 0 && l.bit_count % 8 == 0;
}

// Decodes from the record at cursor + offset and moves the cursor back. A failing move ends
// the call with its status; a failing decode leaves the cursor moved.
template <class Decode>
int16_t at_offset(channelnode* ch, int16_t offset, Decode&& decode) {
  mdf_group* g = ch->group;
  if (offset != 0) {
    if (int16_t st = group_seek(g, offset, MDF_SEEK_REL); st != 0) return st;
  }
  if (int16_t st = decode(); st != 0) return st;
  if (offset != 0) return group_seek(g, -static_cast<int32_t>(offset), MDF_SEEK_REL);
  return 0;
}

// The frame of every value function: sticky error, handle check, work.
template <class Body>
int16_t value_call(channelnode* channel, Body&& body) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (!is_channel(channel)) return bad_channel();
    return body();
  });
}

// Raw bytes into the caller's buffer; a missing buffer or length takes no bytes.
int16_t get_data(channelnode* ch, uint8_t* data, uint32_t* length) {
  if (int16_t st = load_record(ch->group); st != 0) {
    if (length != nullptr) *length = 0;
    return st;
  }
  uint32_t room = (data != nullptr && length != nullptr) ? *length : 0;
  const int16_t st = decode_data(record_of(ch), ch->cn->image, data, &room);
  if (length != nullptr) *length = room;
  return st;
}

// The prepared plan for `kind` values from records of `record_bytes` bytes of record data.
const ArrayPlan& plan_of(channelnode* ch, ValueKind kind, std::size_t record_bytes) {
  return ch->codec.plan(kind, ch->cn, ch->cc, record_bytes);
}

// A value of a record that is not in the buffer yet, from the bytes of its field alone (read
// through the file's read-ahead window): the value and status the decoder gives on the whole
// record. False when the layout needs the whole record; the caller then loads it.
bool decode_pending(channelnode* ch, ValueKind kind, void* out, int16_t* status) {
  mdf_group* g = ch->group;
  if (!g->record_pending) return false;
  const ArrayPlan& plan = plan_of(ch, kind, record_size(g));
  if (plan.status != 0) {
    *status = plan.status;
    return true;
  }
  if (plan.load == ArrayPlan::Load::single) return false;
  // In a file open for reading the record usually lies in the records kept for array reads.
  const uint8_t* record = g->pending_record != nullptr && g->pending_record_size == record_size(g)
                              ? g->pending_record
                              : kept_record(g, g->record_index);
  if (record != nullptr) {
    *status = decode_field(plan, record + plan.byte_offset, out);
    return true;
  }
  uint8_t field[8];
  const uint16_t number = g->file->io_number;
  if (io::seek(number, static_cast<int64_t>(g->pending_at + plan.byte_offset), 0) != 0 ||
      io::read(field, static_cast<uint16_t>(plan.byte_span), number) != 0) {
    *status = raise(MDF_ERR_FORMAT, "");
    return true;
  }
  *status = decode_field(plan, field, out);
  return true;
}

// A value of the record in the buffer. Layouts without a kernel of their own (VAX F) go
// through the single-value decoder.
int16_t decode_loaded(channelnode* ch, ValueKind kind, void* out) {
  const std::span<const uint8_t> record = record_of(ch);
  const ArrayPlan& plan = plan_of(ch, kind, record.size());
  if (plan.status != 0) return plan.status;
  if (plan.load != ArrayPlan::Load::single) {
    return decode_field(plan, record.data() + plan.byte_offset, out);
  }
  if (kind == ValueKind::hex_int) return decode_hex_int(record, ch->cn->image, static_cast<uint64_t*>(out));
  double raw = 0.0;
  const int16_t st = decode_hex(record, ch->cn->image, &raw);
  if (st != 0 || kind == ValueKind::hex) {
    *static_cast<double*>(out) = raw;
    return st;
  }
  return to_physical_prepared(plan.rule, raw, static_cast<double*>(out));
}

// A value of the current record: from the file while the record is pending, else from the
// buffer.
template <class Out>
int16_t decode_current(channelnode* ch, ValueKind kind, Out* v) {
  int16_t st = 0;
  if (decode_pending(ch, kind, v, &st)) return st;
  if (st = load_record(ch->group); st != 0) return st;
  return decode_loaded(ch, kind, v);
}

int16_t get_hex(channelnode* ch, double* value) {
  double v = 0.0;
  const int16_t st = decode_current(ch, ValueKind::hex, &v);
  if (value != nullptr) *value = st == 0 ? v : 0.0;
  return st;
}

int16_t get_hex_int(channelnode* ch, uint64_t* value) {
  uint64_t v = 0;
  const int16_t st = decode_current(ch, ValueKind::hex_int, &v);
  if (value != nullptr) *value = st == 0 ? v : 0;
  return st;
}

int16_t get_phy(channelnode* ch, double* value) {
  double v = 0.0;
  const int16_t st = decode_current(ch, ValueKind::phy, &v);
  if (value != nullptr) *value = v;
  return st;
}

// The caller's buffer is emptied and its length cleared before anything can fail.
void clear_data(uint8_t* data, uint32_t* length) {
  if (data != nullptr && length != nullptr && *length != 0) data[0] = 0;
}

int16_t set_data(channelnode* ch, const uint8_t* data, uint32_t length) {
  if (int16_t st = load_record(ch->group); st != 0) return st;
  if (data == nullptr) length = 0;
  return encode_data(writable_record_of(ch), ch->cn->image, data, length);
}
int16_t set_hex(channelnode* ch, double value) {
  if (int16_t st = load_record(ch->group); st != 0) return st;
  return encode_hex(writable_record_of(ch), ch->cn->image, value);
}
int16_t set_hex_int(channelnode* ch, uint64_t value) {
  if (int16_t st = load_record(ch->group); st != 0) return st;
  return encode_hex_int(writable_record_of(ch), ch->cn->image, value);
}
int16_t set_phy(channelnode* ch, double value) {
  if (int16_t st = load_record(ch->group); st != 0) return st;
  return encode_phy(writable_record_of(ch), ch->cn->image, conversion_of(ch), value);
}

}  // namespace
}  // namespace korvel

using namespace korvel;

extern "C" {

// ---- Get: the record at cursor + offset ----------------------------------------------------

KORVEL_API int16_t mdfChnGetData(uint8_t* data, uint32_t* length, channelnode* channel,
                                 int16_t offset) {
  return value_call(channel, [&]() -> int16_t {
    clear_data(data, length);
    if (!byte_aligned(channel)) {
      if (length != nullptr) *length = 0;
      return MDF_NOT_BYTE_ALIGNED;
    }
    return at_offset(channel, offset, [&] { return get_data(channel, data, length); });
  });
}

KORVEL_API int16_t mdfChnGetHex(double* value, channelnode* channel, int16_t offset) {
  return value_call(channel, [&]() -> int16_t {
    if (value != nullptr) *value = 0.0;
    return at_offset(channel, offset, [&] { return get_hex(channel, value); });
  });
}

KORVEL_API int16_t mdfChnGetHexInt(uint64_t* value, channelnode* channel, int16_t offset) {
  return value_call(channel, [&]() -> int16_t {
    if (value != nullptr) *value = 0;
    return at_offset(channel, offset, [&] { return get_hex_int(channel, value); });
  });
}

KORVEL_API int16_t mdfChnGetPhy(double* value, channelnode* channel, int16_t offset) {
  return value_call(channel, [&]() -> int16_t {
    if (value != nullptr) *value = 0.0;
    return at_offset(channel, offset, [&] { return get_phy(channel, value); });
  });
}

// ---- Set: the current record in memory -----------------------------------------------------

KORVEL_API int16_t mdfChnSetData(channelnode* channel, const uint8_t* data, uint32_t length) {
  return value_call(channel, [&]() -> int16_t {
    if (!byte_aligned(channel)) return MDF_NOT_BYTE_ALIGNED;
    return set_data(channel, data, length);
  });
}

KORVEL_API int16_t mdfChnSetHex(channelnode* channel, double value) {
  return value_call(channel, [&]() -> int16_t { return set_hex(channel, value); });
}

KORVEL_API int16_t mdfChnSetHexInt(channelnode* channel, uint64_t value) {
  return value_call(channel, [&]() -> int16_t { return set_hex_int(channel, value); });
}

KORVEL_API int16_t mdfChnSetPhy(channelnode* channel, double value) {
  return value_call(channel, [&]() -> int16_t { return set_phy(channel, value); });
}

// ---- Read: the next record -----------------------------------------------------------------

KORVEL_API int16_t mdfChnReadData(uint8_t* data, uint32_t* length, channelnode* channel) {
  return value_call(channel, [&]() -> int16_t {
    clear_data(data, length);
    if (!byte_aligned(channel)) {
      if (length != nullptr) *length = 0;
      return MDF_NOT_BYTE_ALIGNED;
    }
    if (int16_t st = read_step(channel); st != 0) {
      if (length != nullptr) *length = 0;
      return st;
    }
    return get_data(channel, data, length);
  });
}

KORVEL_API int16_t mdfChnReadHex(double* value, channelnode* channel) {
  return value_call(channel, [&]() -> int16_t {
    if (value != nullptr) *value = 0.0;
    if (int16_t st = read_step(channel); st != 0) return st;
    return get_hex(channel, value);
  });
}

KORVEL_API int16_t mdfChnReadHexInt(uint64_t* value, channelnode* channel) {
  return value_call(channel, [&]() -> int16_t {
    if (value != nullptr) *value = 0;
    if (int16_t st = read_step(channel); st != 0) return st;
    return get_hex_int(channel, value);
  });
}

KORVEL_API int16_t mdfChnReadPhy(double* value, channelnode* channel) {
  return value_call(channel, [&]() -> int16_t {
    if (value != nullptr) *value = 0.0;
    if (int16_t st = read_step(channel); st != 0) return st;
    return get_phy(channel, value);
  });
}

// ---- Write: the next record ----------------------------------------------------------------

KORVEL_API int16_t mdfChnWriteData(channelnode* channel, const uint8_t* data, uint32_t length) {
  return value_call(channel, [&]() -> int16_t {
    if (!byte_aligned(channel)) return MDF_NOT_BYTE_ALIGNED;
    if (int16_t st = write_step(channel); st != 0) return st;
    return set_data(channel, data, length);
  });
}

KORVEL_API int16_t mdfChnWriteHex(channelnode* channel, double value) {
  return value_call(channel, [&]() -> int16_t {
    if (int16_t st = write_step(channel); st != 0) return st;
    return set_hex(channel, value);
  });
}

KORVEL_API int16_t mdfChnWriteHexInt(channelnode* channel, uint64_t value) {
  return value_call(channel, [&]() -> int16_t {
    if (int16_t st = write_step(channel); st != 0) return st;
    return set_hex_int(channel, value);
  });
}

KORVEL_API int16_t mdfChnWritePhy(channelnode* channel, double value) {
  return value_call(channel, [&]() -> int16_t {
    if (int16_t st = write_step(channel); st != 0) return st;
    return set_phy(channel, value);
  });
}

}  // extern "C"
