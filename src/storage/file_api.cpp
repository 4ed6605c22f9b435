// The exported file functions: open, create, close, header fields, counts.
#include <cstdio>
#include <cstring>

#include "frame/api.h"
#include "frame/bytes.h"
#include "frame/frame.h"
#include "storage/file.h"
#include "storage/io.h"
#include "storage/placement.h"

namespace korvel {
namespace {

using namespace layout;

int16_t bad_file() {
  return raise(MDF_ERR_BAD_FILE, "");
}

uint16_t count_channel_groups(mdf_file* file) {
  uint32_t total = 0;
  for_each_data_group(file, [&](Node* dg) {
    total += load_le16(dg->image + dg::kCgCount);
    return true;
  });
  return static_cast<uint16_t>(total > 0xFFFF ? 0xFFFF : total);
}

int16_t open_file(mdf_file** out, const char* name, uint16_t mode) {
  if (state().context_depth == 0) return raise(MDF_ERR_NOT_INITIALIZED, "");
  if (mode >= 3) return raise(MDF_ERR_OPEN_MODE, "");
  *out = nullptr;
  uint16_t number = io::kNoFile;
  // Writes collect in the I/O unit's write buffer (a file opened for reading has none).
  if (int16_t st = io::open(&number, name,
                            static_cast<uint16_t>(mode | state().extra_open_flags | io::kWriteBuffer),
                            static_cast<uint16_t>(state().io_buffer_size));
      st != 0) {
    return st;
  }
  mdf_file* file = nullptr;
  int16_t st = create_file_record(&file);
  if (st == 0) {
    file->io_number = number;
    std::snprintf(file->name, sizeof file->name, "%s", name);
    file->mode = mode;
    if (mode == 2) {
      Node* id = nullptr;
      Node* hd = nullptr;
      Placement placement(file->tree);
      st = new_block(file, kId, &id);
      if (st == 0) st = new_block(file, kHD, &hd);
      if (st == 0) st = append_placed(file, placement, {id, hd});
      if (st == 0) {
        file->id_block = id;
        file->header = hd;
      }
    } else {
      st = read_file(file, ReadOptions{true, false});
      if (st == 0 && mode == 1 && load_le16(file->id_block->image + id::kFloatFormat) != 0) {
        st = raise(MDF_ERR_FLOAT_FORMAT, "");
      }
      if (st == 0) file->group_count = count_channel_groups(file);
      if (st == 0 && mode == 1) st = map_file(file);
    }
  }
  if (st != 0) {
    io::close(number);
    if (file != nullptr) release_file_record(file);
    return st;
  }
  link_file(file);
  *out = file;
  return 0;
}

int16_t close_file(mdf_file* file) {
  if (CloseGroupsHook hook = state().kept.close_groups; hook != nullptr) hook(file);
  int16_t status = 0;
  if (sticky_error() == 0 && (file->mode == 1 || file->mode == 2)) {
    const uint16_t number = file->io_number;
    if (io::seek(number, 0, io::kToEnd) != 0) {
      status = MDF_ERR_SEEK;
    } else {
      // The comment is appended anew at every close; the header is rewritten in place.
      Node* comment = resolve_link(file->tree, file->header, hd::kComment);
      Placement placement(file->tree);
      placement.set_end(static_cast<uint64_t>(io::tell(number)));
      if (comment != nullptr) placement.assign(comment, placement.end());
      if (comment != nullptr) status = write_placed(file, placement, comment);
      if (status == 0) status = write_placed(file, placement, file->header, {hd::kComment});
      // The close's result says whether everything written reached the file.
      if (status == 0) status = io::commit(number);
    }
  }
  if (file->io_number != io::kNoFile) io::close(file->io_number);
  release_file_record(file);
  return status;
}

// The header's 32-character text fields, in the order of the interface.
constexpr uint32_t kTextFields[] = {hd::kAuthor, hd::kOrganisation, hd::kProject, hd::kSubject};

int16_t get_info(mdf_file* file, const char** date, const char** time, const char** text,
                 const char** fields[4]) {
  const uint8_t* b = file->header->image;
  if (date != nullptr) {
    char* shared = state().kept.file_date;
    std::memcpy(shared, b + hd::kDate, 10);
    shared[10] = '\0';
    *date = shared;
  }
  if (time != nullptr) {
    char* shared = state().kept.file_time;
    std::memcpy(shared, b + hd::kTime, 8);
    shared[8] = '\0';
    *time = shared;
  }
  if (text != nullptr) *text = text_of(resolve_link(file->tree, file->header, hd::kComment));
  for (int i = 0; i < 4; ++i) {
    if (fields[i] != nullptr) *fields[i] = reinterpret_cast<const char*>(b + kTextFields[i]);
  }
  return 0;
}

int16_t set_info(mdf_file* file, const char* date, const char* time, const char* text,
                 const char* const fields[4]) {
  Node* hd = file->header;
  uint8_t* b = hd->image;
  if (date != nullptr) copy_field(reinterpret_cast<char*>(b + hd::kDate), date, 10);
  if (time != nullptr) copy_field(reinterpret_cast<char*>(b + hd::kTime), time, 8);
  if ((date != nullptr || time != nullptr) && hd->block_size() >= hd::kSize) {
    store_le64(b + hd::kTimeStamp, 0);  // the explicit date and time replace the stamp
  }
  if (text != nullptr) {
    if (text[0] == '\0') {
      set_link(hd, hd::kComment, 0, nullptr);
    } else {
      Node* tx = nullptr;
      const std::size_t length = std::strlen(text);
      if (length > 0xFFFF - 5) return raise(MDF_ERR_FORMAT, "");
      if (int16_t st = new_text_block(file, &tx, static_cast<uint32_t>(length), text); st != 0) {
        return st;
      }
      set_link(hd, hd::kComment, 0, tx);
    }
  }
  for (int i = 0; i < 4; ++i) {
    if (fields[i] != nullptr)
      copy_field(reinterpret_cast<char*>(b + kTextFields[i]), fields[i], 32);
  }
  return 0;
}

}  // namespace

void set_close_groups_hook(CloseGroupsHook hook) {
  state().kept.close_groups = hook;
}

int16_t close_files_at_depth(uint16_t depth) {
  int16_t status = 0;
  mdf_file* file = state().open_files;
  while (file != nullptr) {
    if (file->tag != kFileTag) return internal_error("MDFINIT1", 29);
    mdf_file* next = file->next;
    if (file->context_depth >= depth) status = mdfFileClose(file);
    file = next;
  }
  return status;
}

}  // namespace korvel

using namespace korvel;

extern "C" {

KORVEL_API int16_t mdfFileOpen(mdf_file** file, const char* name, uint16_t mode) {
  return checked_call("MDFFILE1", [&] {
    if (file == nullptr || name == nullptr) return internal_error("MDFFILE1", __LINE__);
    return open_file(file, name, mode);
  });
}

KORVEL_API int16_t mdfFileClose(mdf_file* file) {
  return api_call("MDFFILE1", [&]() -> int16_t {
    if (file == nullptr) return 0;
    if (!is_file(file)) return bad_file();
    return close_file(file);
  });
}

KORVEL_API int16_t mdfFileGetInfo(mdf_file* file, const char** date, const char** time,
                                  const char** text, const char** name, const char** division,
                                  const char** project, const char** subject) {
  return checked_call("MDFFILE1", [&] {
    if (!is_file(file)) return bad_file();
    const char** fields[4] = {name, division, project, subject};
    return get_info(file, date, time, text, fields);
  });
}

KORVEL_API int16_t mdfFileSetInfo(mdf_file* file, const char* date, const char* time,
                                  const char* text, const char* name, const char* division,
                                  const char* project, const char* subject) {
  return checked_call("MDFFILE1", [&] {
    if (!is_file(file)) return bad_file();
    const char* const fields[4] = {name, division, project, subject};
    return set_info(file, date, time, text, fields);
  });
}

#define KORVEL_FILE_GET(Name, ...)                                        \
  KORVEL_API int16_t mdfFileGet##Name(mdf_file* file, const char** out) { \
    return mdfFileGetInfo(file, __VA_ARGS__);                             \
  }
KORVEL_FILE_GET(Date, out, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr)
KORVEL_FILE_GET(Time, nullptr, out, nullptr, nullptr, nullptr, nullptr, nullptr)
KORVEL_FILE_GET(Text, nullptr, nullptr, out, nullptr, nullptr, nullptr, nullptr)
KORVEL_FILE_GET(Name, nullptr, nullptr, nullptr, out, nullptr, nullptr, nullptr)
KORVEL_FILE_GET(Division, nullptr, nullptr, nullptr, nullptr, out, nullptr, nullptr)
KORVEL_FILE_GET(Project, nullptr, nullptr, nullptr, nullptr, nullptr, out, nullptr)
KORVEL_FILE_GET(Subject, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, out)
#undef KORVEL_FILE_GET

#define KORVEL_FILE_SET(Name, ...)                                         \
  KORVEL_API int16_t mdfFileSet##Name(mdf_file* file, const char* value) { \
    return mdfFileSetInfo(file, __VA_ARGS__);                              \
  }
KORVEL_FILE_SET(Date, value, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr)
KORVEL_FILE_SET(Time, nullptr, value, nullptr, nullptr, nullptr, nullptr, nullptr)
KORVEL_FILE_SET(Text, nullptr, nullptr, value, nullptr, nullptr, nullptr, nullptr)
KORVEL_FILE_SET(Name, nullptr, nullptr, nullptr, value, nullptr, nullptr, nullptr)
KORVEL_FILE_SET(Division, nullptr, nullptr, nullptr, nullptr, value, nullptr, nullptr)
KORVEL_FILE_SET(Project, nullptr, nullptr, nullptr, nullptr, nullptr, value, nullptr)
KORVEL_FILE_SET(Subject, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, value)
#undef KORVEL_FILE_SET

KORVEL_API int16_t mdfFileGroups(uint16_t* count, mdf_file* file) {
  return checked_call("MDFFILE1", [&] {
    if (!is_file(file)) return bad_file();
    if (count != nullptr) *count = file->group_count;
    return int16_t{0};
  });
}

KORVEL_API int16_t mdfFileIsSort(mdf_file* file) {
  return checked_call("MDFFILE1", [&] {
    if (!is_file(file)) return bad_file();
    int16_t result = 0;
    for_each_data_group(file, [&](Node* dg) {
      if (load_le16(dg->image + dg::kCgCount) > 1) result = MDF_NOT_SORTED;
      return result == 0;
    });
    return result;
  });
}

}  // extern "C"
