// Reading, making and writing the blocks of an MDF 3.x file.
#include "storage/block.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <vector>

#include "frame/bytes.h"
#include "frame/frame.h"
#include "platform/platform.h"
#include "storage/cc_extra.h"
#include "storage/io.h"

namespace korvel {

using namespace layout;

namespace {

// The smallest block of each kind whose fixed fields the library reads; a shorter block
// cannot be used and ends the open.
uint32_t minimum_size(uint16_t kind) {
  const KindSpec* desc = kind_spec(kind);
  return desc != nullptr ? desc->minimum_size : 4u;
}

// The identifiers a block read from a file may carry.
bool accepted_kind(uint16_t kind) {
  return kind != kId && kind_spec(kind) != nullptr;
}

uint32_t default_size(uint16_t kind) {
  const KindSpec* desc = kind_spec(kind);
  return desc != nullptr ? desc->default_size : 0u;
}

void fill_header_defaults(uint8_t* b) {
  platform::ClockReading clock;
  if (platform::current_time(&clock)) {
    // Hours east of UTC (daylight saving not added); the stamp counts local time.
    const int16_t utc_hours = static_cast<int16_t>(-(clock.minutes_west / 60));
    const int64_t stamp = clock.seconds * 1000000000LL + utc_hours * 3600LL * 1000000000LL;
    store_le64(b + hd::kTimeStamp, static_cast<uint64_t>(stamp));
    store_le16(b + hd::kUtcOffset, static_cast<uint16_t>(utc_hours));
  }
  platform::CalendarTime t;
  platform::local_calendar_time(&t);
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%04d", t.day, t.month, t.year);
  copy_field(reinterpret_cast<char*>(b + hd::kDate), text, 10);
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", t.hour, t.minute, t.second);
  copy_field(reinterpret_cast<char*>(b + hd::kTime), text, 8);
  copy_field(reinterpret_cast<char*>(b + hd::kAuthor), "KORVEL", 32);
  copy_field(reinterpret_cast<char*>(b + hd::kTimerId), "Local PC Reference Time", 32);
}

// Makes a node of `kind` with `size` bytes and the head filled in, links registered.
int16_t make_node(mdf_file* file, uint16_t kind, uint32_t size, Node** out) {
  *out = nullptr;
  if (kind != kId && size > 0xFFFF) return raise(MDF_ERR_FORMAT, "");
  std::array<uint32_t, 8> fields{};
  // A fresh image is all zeros: only the fixed link fields exist yet.
  uint8_t head[4];
  store_le16(head, kind);
  store_le16(head + 2, static_cast<uint16_t>(size));
  const uint16_t count = link_fields(kind, nullptr, size, fields.data(), fields.size());
  Node* node = file->tree.add(kind, size + image_extra(kind), 0, fields.data(), count);
  if (node == nullptr) return raise(MDF_ERR_NO_MEMORY, "");
  if (kind != kId) std::memcpy(node->image, head, 4);
  if (kind == kCC) store_f64(node->image + size + 8, 1.0);  // factor; offset stays 0.0
  *out = node;
  return 0;
}

// Converts the REAL at `offset` from the file's VAX format to IEEE in place.
void convert_real(uint8_t* b, uint32_t offset, uint16_t format) {
  if (format == 1) {
    mdfVAXGFloatToPCDouble(b + offset);
  } else if (format == 2) {
    mdfVAXDFloatToPCDouble(b + offset);
  }
}

class FileReader {
 public:
  FileReader(mdf_file* file, const ReadOptions& options) : file_(file), options_(options) {}
  int16_t run();

 private:
  int16_t read_identification();
  int16_t read(uint32_t link, uint16_t expected, Node** out, bool* fresh = nullptr) {
    return read_block(file_, link, expected, out, fresh);
  }
  int16_t read_link(Node* owner, uint32_t field, uint16_t expected, Node** out,
                    bool* fresh = nullptr) {
    return read(load_le32(owner->image + field), expected, out, fresh);
  }
  // Reads the next member of a chain; a member seen before closes a loop.
  int16_t read_chain_member(uint32_t link, uint16_t kind, Node** out);
  // Reads the chain of `kind` that starts at `owner`'s link at `field`, handing each member
  // to `visit` (a status) before the next is read; a member seen before closes a loop.
  template <class Visit>
  int16_t read_chain(Node* owner, uint32_t field, uint16_t kind, Visit&& visit) {
    const uint32_t next = kind_spec(kind)->next;
    Node* member = nullptr;
    for (uint32_t link = load_le32(owner->image + field); link != 0;
         link = load_le32(member->image + next)) {
      if (int16_t st = read_chain_member(link, kind, &member); st != 0) return st;
      if (int16_t st = visit(member); st != 0) return st;
    }
    return 0;
  }
  int16_t read_data_group(Node* dg);
  int16_t read_channel_group(Node* cg);
  int16_t read_channel(Node* cn);
  int16_t read_conversion(Node* cc);
  // Converts the fixed REAL fields of the block's kind.
  void convert_reals(Node* node) {
    const KindSpec* desc = kind_spec(node->kind);
    for (uint8_t i = 0; i < desc->real_count; ++i)
      convert_real(node->image, desc->reals[i], float_format_);
  }
  void convert_trigger(Node* tr);
  void convert_extension(Node* ce);

  mdf_file* file_;
  ReadOptions options_;
  uint16_t float_format_ = 0;  // 0 when REALs are taken as stored
};

int16_t FileReader::read_chain_member(uint32_t link, uint16_t kind, Node** out) {
  *out = nullptr;
  if (link == 0) return 0;
  if (file_->tree.find_by_position(link) != nullptr) return raise(MDF_ERR_FORMAT, "");
  return read(link, kind, out);
}

int16_t FileReader::read_identification() {
  Node* node = nullptr;
  if (int16_t st = make_node(file_, kId, id::kSize, &node); st != 0) return st;
  if (int16_t st = io::seek(file_->io_number, 0, 0); st != 0) return st;
  if (int16_t st = io::read(node->image, id::kSize, file_->io_number); st != 0) return st;
  const uint8_t* b = node->image;
  const bool finished = std::memcmp(b, "MDF", 3) == 0;
  const bool unfinished = options_.accept_unfinished && std::memcmp(b, "UnFinMF", 7) == 0;
  if ((!finished && !unfinished) || b[id::kReserved] != 0 || b[id::kReserved + 1] != 0) {
    return raise(MDF_ERR_FORMAT, "");
  }
  file_->id_block = node;
  return 0;
}

int16_t FileReader::run() {
  if (int16_t st = read_identification(); st != 0) return st;
  if (options_.convert_floats) {
    float_format_ = load_le16(file_->id_block->image + id::kFloatFormat);
    if (float_format_ > 2) return raise(MDF_ERR_FLOAT_FORMAT, "");
  }
  Node* hd = nullptr;
  if (int16_t st = read(hd::kPosition, kHD, &hd); st != 0) return st;
  file_->header = hd;
  Node* unused = nullptr;
  if (int16_t st = read_link(hd, hd::kProgram, kPR, &unused); st != 0) return st;
  if (int16_t st = read_link(hd, hd::kComment, kTX, &unused); st != 0) return st;
  return read_chain(hd, hd::kFirstDg, kDG, [&](Node* dg) { return read_data_group(dg); });
}

int16_t FileReader::read_data_group(Node* dg) {
  // Records carry no, one or two identifier bytes; any other count cannot be laid out.
  if (load_le16(dg->image + dg::kRecordIds) > 2) return MDF_ERR_FORMAT;
  Node* tr = nullptr;
  bool fresh = false;
  if (int16_t st = read_link(dg, dg::kTrigger, kTR, &tr, &fresh); st != 0) return st;
  if (fresh) {
    Node* comment = nullptr;
    if (int16_t st = read_link(tr, tr::kComment, kTX, &comment); st != 0) return st;
    convert_trigger(tr);
  }
  return read_chain(dg, dg::kFirstCg, kCG, [&](Node* cg) { return read_channel_group(cg); });
}

int16_t FileReader::read_channel_group(Node* cg) {
  Node* node = nullptr;
  if (int16_t st = read_link(cg, cg::kComment, kTX, &node); st != 0) return st;
  if (cg->block_size() >= cg::kSizeWithSr) {
    const int16_t st = read_chain(cg, cg::kFirstSr, kSR, [](Node*) { return int16_t{0}; });
    if (st != 0) return st;
  }
  return read_chain(cg, cg::kFirstCn, kCN, [&](Node* cn) { return read_channel(cn); });
}

int16_t FileReader::read_channel(Node* cn) {
  uint8_t* b = cn->image;
  // Writers mixed up single and double floats; the bit count decides.
  const uint16_t type = load_le16(b + cn::kDataType);
  const uint16_t bits = load_le16(b + cn::kBitCount);
  if (type == 2 && bits == 64) store_le16(b + cn::kDataType, 3);
  if (type == 3 && bits == 32) store_le16(b + cn::kDataType, 2);
  convert_reals(cn);
  // The blocks a channel links to, in the order of its link fields (the next channel aside:
  // the chain reads it). Blocks shared by several channels are read, and their REALs
  // converted, only once.
  const KindSpec& desc = *kind_spec(kCN);
  const uint16_t size = cn->block_size();
  for (uint8_t i = 0; i < desc.link_count; ++i) {
    const LinkSpec& link = desc.links[i];
    if (link.field == desc.next || size < link.from_size) continue;
    Node* node = nullptr;
    bool fresh = false;
    if (int16_t st = read_link(cn, link.field, link.target, &node, &fresh); st != 0) return st;
    if (!fresh) continue;
    if (node->kind == kCC) {
      if (int16_t st = read_conversion(node); st != 0) return st;
    } else if (node->kind == kCE) {
      convert_extension(node);
    }
  }
  return 0;
}

int16_t FileReader::read_conversion(Node* cc) {
  uint8_t* b = cc->image;
  const uint32_t size = cc->block_size();
  const uint16_t type = load_le16(b + cc::kType);
  const uint32_t count = load_le16(b + cc::kCount);
  if (float_format_ != 0) {
    convert_reals(cc);
    auto each_real = [&](uint32_t stride, std::initializer_list<uint32_t> offsets) {
      for (uint32_t i = 0; i < count; ++i) {
        for (uint32_t within : offsets) {
          const uint32_t at = cc::kParams + stride * i + within;
          if (at + 8 <= size) convert_real(b, at, float_format_);
        }
      }
    };
    switch (type) {
      case 0:
      case 6:
      case 7:
      case 8:
      case 9:
        each_real(8, {0});
        break;
      case 1:
      case 2:
        each_real(cc::kTableEntry, {0, 8});
        break;
      case 11:
        each_real(cc::kVtabEntry, {0});
        break;
      case 12:
        each_real(cc::kVtabrEntry, {0, 8});
        break;
      default:
        break;
    }
  }
  if (type == 12) {
    Node* first_text = nullptr;
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t field = cc::kParams + cc::kVtabrEntry * i + cc::kVtabrLink;
      if (field + 4 > size) break;
      Node* tx = nullptr;
      if (int16_t st = read_link(cc, field, kTX, &tx); st != 0) return st;
      if (i == 0) first_text = tx;
    }
    derive_vtabr_extra(b, count != 0 && first_text != nullptr ? text_of(first_text) : nullptr);
  }
  return 0;
}

void FileReader::convert_extension(Node* ce) {
  // The analog layouts hold one REAL at record offset 10.
  const uint16_t type = load_le16(ce->image + ce::kType);
  const uint32_t at = ce::kRecord + 10;
  if ((type == 1 || type == 14) && at + 8 <= ce->block_size()) {
    convert_real(ce->image, at, float_format_);
  }
}

void FileReader::convert_trigger(Node* tr) {
  if (float_format_ == 0) return;
  const uint32_t size = tr->block_size();
  const uint32_t events = load_le16(tr->image + tr::kCount);
  for (uint32_t i = 0; i < events * 3; ++i) {
    const uint32_t at = tr::kEvents + 8 * i;
    if (at + 8 > size) break;
    convert_real(tr->image, at, float_format_);
  }
}

}  // namespace

uint32_t image_extra(uint16_t kind) {
  const KindSpec* desc = kind_spec(kind);
  return desc != nullptr ? desc->extra : 0u;
}

uint16_t link_fields(uint16_t kind, const uint8_t* image, uint32_t size, uint32_t* out,
                     uint16_t capacity) {
  uint16_t n = 0;
  auto add = [&](uint32_t field) {
    if (field + 4 <= size && n < capacity) out[n++] = field;
  };
  const KindSpec* desc = kind_spec(kind);
  if (desc == nullptr) return 0;
  for (uint8_t i = 0; i < desc->link_count; ++i) {
    if (size >= desc->links[i].from_size) add(desc->links[i].field);
  }
  if (!desc->content_links) return n;
  if (kind == kCC) {
    if (image != nullptr && load_le16(image + cc::kType) == 12) {
      const uint32_t count = load_le16(image + cc::kCount);
      for (uint32_t i = 0; i < count; ++i) add(cc::kParams + cc::kVtabrEntry * i + cc::kVtabrLink);
    }
  } else if (kind == kCD) {
    // A new block holds one dependency.
    const uint32_t count = image != nullptr ? load_le16(image + cd::kCount) : 1u;
    for (uint32_t i = 0; i < count; ++i) {
      for (uint32_t k = 0; k < 3; ++k) add(cd::kEntries + cd::kEntry * i + 4 * k);
    }
  }
  return n;
}

int16_t new_sized_block(mdf_file* file, uint16_t kind, uint32_t size, Node** out) {
  return make_node(file, kind, size, out);
}

int16_t new_block(mdf_file* file, uint16_t kind, Node** out) {
  *out = nullptr;
  const uint32_t size = default_size(kind);
  if (size == 0) return internal_error("MDF3", __LINE__);
  Node* node = nullptr;
  if (int16_t st = make_node(file, kind, size, &node); st != 0) return st;
  uint8_t* b = node->image;
  if (kind == kId) {
    std::memcpy(b + id::kFileId, "MDF     ", 8);
    std::memcpy(b + id::kFormatId, "3.20    ", 8);
    std::memcpy(b + id::kProgramId, state().program_id, 8);
    store_le16(b + id::kVersion, 320);
  } else if (kind == kHD) {
    fill_header_defaults(b);
  } else if (kind == kCD) {
    store_le16(b + cd::kCount, 1);
  }
  *out = node;
  return 0;
}

int16_t new_conversion_block(mdf_file* file, Node** out, uint16_t type, uint16_t entries) {
  const uint32_t size = cc::kSize + entries * cc::param_bytes_per_entry(type);
  Node* node = nullptr;
  if (int16_t st = make_node(file, kCC, size, &node); st != 0) return st;
  store_le16(node->image + cc::kType, type);
  store_le16(node->image + cc::kCount, entries);
  *out = node;
  return 0;
}

int16_t new_trigger_block(mdf_file* file, Node** out, uint16_t events) {
  Node* node = nullptr;
  if (int16_t st = make_node(file, kTR, 24u * events + 34u, &node); st != 0) return st;
  store_le16(node->image + tr::kCount, events);
  *out = node;
  return 0;
}

int16_t new_text_block(mdf_file* file, Node** out, uint32_t length, const char* text) {
  Node* node = nullptr;
  if (int16_t st = make_node(file, kTX, length + 5, &node); st != 0) return st;
  std::memcpy(node->image + tx::kText, text, length);
  *out = node;
  return 0;
}

int16_t copy_block(mdf_file* file, Node** out, const NodeTree& source_tree, const Node* source) {
  *out = nullptr;
  std::array<uint32_t, 1> none{};
  const uint16_t count = source->link_count;
  std::vector<uint32_t> fields(count);
  const LinkRecord* src_links = const_cast<Node*>(source)->links();
  for (uint16_t i = 0; i < count; ++i) fields[i] = src_links[i].field;
  Node* node = file->tree.add(source->kind, source->image_size, 0,
                              count != 0 ? fields.data() : none.data(), count);
  if (node == nullptr) return raise(MDF_ERR_NO_MEMORY, "");
  std::memcpy(node->image, source->image, source->image_size);
  LinkRecord* links = node->links();
  for (uint16_t i = 0; i < count; ++i) {
    // The copy's links name their targets, never a bare position: a position is looked up
    // in the tree of the block that holds the link, which is not the source's tree.
    Node* target = src_links[i].target;
    if (target == nullptr && src_links[i].position != 0) {
      target = source_tree.find_by_position(src_links[i].position);
      if (target == nullptr) {
        file->tree.remove(node);
        return raise(MDF_ERR_UNKNOWN_BLOCK, "");
      }
    }
    links[i].position = 0;
    links[i].target = target;
  }
  *out = node;
  return 0;
}

int16_t read_block(mdf_file* file, uint32_t link, uint16_t expected, Node** out, bool* fresh) {
  *out = nullptr;
  if (fresh != nullptr) *fresh = false;
  if (link == 0) return 0;
  if (Node* known = file->tree.find_by_position(link); known != nullptr) {
    if (expected != 0 && known->kind != expected) return raise(MDF_ERR_FORMAT, "");
    *out = known;
    return 0;
  }
  const uint16_t number = file->io_number;
  const int64_t file_size = io::known_size(number);
  // A head or body that lies past the end of the file cannot be read whole: a short read,
  // reported as every failed read is. Checked before seeking, which would grow the known size.
  if (static_cast<int64_t>(link) + 4 > file_size) return raise(MDF_ERR_READ, "");
  uint8_t head[4];
  if (int16_t st = io::seek(number, link, 0); st != 0) return st;
  if (int16_t st = io::read(head, 4, number); st != 0) return st;
  const uint16_t kind = load_le16(head);
  const uint32_t size = load_le16(head + 2);
  if (size < 4 || !accepted_kind(kind)) return MDF_ERR_FORMAT;
  if (static_cast<int64_t>(link) + size > file_size) return raise(MDF_ERR_READ, "");
  if (size < minimum_size(kind)) return MDF_ERR_FORMAT;
  // Blocks of a sound file do not overlap, so together they are no larger than the file;
  // blocks laid over each other would let a small file claim any amount of memory.
  if (static_cast<int64_t>(file->tree.loaded_bytes() + size) > file_size) return MDF_ERR_FORMAT;
  if (expected != 0 && kind != expected) return raise(MDF_ERR_FORMAT, "");
  // The number of link fields of CC and CD blocks depends on their contents, so the image
  // is read first and the node made with its link records afterwards.
  std::vector<uint8_t>& scratch = state().kept.block_scratch;
  std::vector<uint32_t>& fields = state().kept.link_fields;
  scratch.resize(size);
  fields.resize(size / 4 + 8);
  std::memcpy(scratch.data(), head, 4);
  if (int16_t st = io::read(scratch.data() + 4, static_cast<uint16_t>(size - 4), number); st != 0) {
    return st;
  }
  if (kind == kCD) {
    // A dependency block holds at least the entries it counts.
    const int64_t entries = load_le16(scratch.data() + cd::kCount);
    if (static_cast<int64_t>(size) < (entries - 1) * 12 + 20) return MDF_ERR_FORMAT;
  }
  const uint16_t count =
      link_fields(kind, scratch.data(), size, fields.data(),
                  static_cast<uint16_t>(std::min<std::size_t>(fields.size(), 0xFFFF)));
  Node* node = file->tree.add(kind, size + image_extra(kind), link, fields.data(), count);
  if (node == nullptr) return raise(MDF_ERR_NO_MEMORY, "");
  std::memcpy(node->image, scratch.data(), size);
  file->tree.count_loaded(size);
  if (kind == kCC) store_f64(node->image + size + 8, 1.0);
  NodeTree::register_links(node);
  *out = node;
  if (fresh != nullptr) *fresh = true;
  return 0;
}

int16_t read_file(mdf_file* file, const ReadOptions& options) {
  FileReader reader(file, options);
  const int16_t st = reader.run();
  if (st != 0) {
    file->id_block = nullptr;
    file->header = nullptr;
  }
  return st;
}

const char* text_of(const Node* tx) {
  return tx != nullptr ? reinterpret_cast<const char*>(tx->image + tx::kText) : "";
}

}  // namespace korvel
