// Runs of a group's records in memory, for reading one channel over many records.
//
// The records are found as the record cursor finds them (a sorted data group by position, an
// unsorted one by a scan over the record identifiers), but read in large pieces straight from
// the data section instead of record by record. The bytes stay with the group handle (at most
// kRecordCacheBytes) while its file is open for reading only, so that reading the channels of
// a group one after the other reads the file once; in files open for modifying or creating
// they are read again at every call. Nothing is read beyond the end of the file.
#pragma once

#include <cstddef>
#include <cstdint>

struct mdf_group;

namespace korvel {

constexpr std::size_t kRecordCacheBytes = std::size_t{16} << 20;

// The number of records the group offers: record i is offered when offers_record(g, i).
uint32_t offered_records(const mdf_group* g);

// Record data of `count` consecutive records: record r's data at base + r * stride.
struct RecordRun {
  const uint8_t* base = nullptr;
  std::size_t stride = 0;
  uint32_t count = 0;
};

// Makes records index, index + 1, ... (at most `limit`, at least one) available in memory.
// `index` must be an offered record. Returns 0, or -2004 (raised) when record `index` cannot be
// found or read, as the record cursor would fail on it (-2007 without memory).
int16_t fetch_records(mdf_group* g, uint32_t index, uint32_t limit, RecordRun* run);

// The record data of offered record `index` from the records kept with a group handle of a
// file open for reading (read into them first when needed); null in files open for
// modifying or creating, or when the record cannot be read (nothing raised then).
const uint8_t* kept_record(mdf_group* g, uint32_t index);

// Record `index` of a sorted group (its identifier first, when it has one) as it stands in the
// file, when the records kept with a group handle of a file open for reading hold it as read
// in one piece (nothing is read); null otherwise. Such a record is one the group offers.
const uint8_t* kept_file_record(const mdf_group* g, uint32_t index);

// The file bytes [at, at + n) when the records kept with a group handle of a file open for
// reading hold them as they stand in the file (nothing is read); null otherwise.
const uint8_t* kept_file_bytes(const mdf_group* g, uint64_t at, uint32_t n);

// Frees the bytes kept with the group handle.
void release_record_cache(mdf_group* g);

}  // namespace korvel
