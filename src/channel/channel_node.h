// The channel record behind a channel handle, and the process-wide list of open channels.
#pragma once

#include <cstdint>

#include "channel/codec.h"
#include "korvel.h"
#include "storage/node.h"

struct channelnode {
  uint32_t tag = korvel::kChannelTag;
  mdf_group* group = nullptr;   // the open group the channel belongs to
  korvel::Node* cn = nullptr;   // the CN block; properties are read and set in its image
  korvel::Node* cc = nullptr;   // the conversion block, or null
  uint16_t read_steps = 0;      // read calls made; while 0 a read stays on the record
  uint16_t write_steps = 0;     // write calls made; while 0 a write stays on the record
  channelnode* next = nullptr;  // next open channel, in order of opening
  channelnode* prev = nullptr;  // previous open channel (a channel leaves the list at once)
  korvel::ChannelCodec codec;   // value coding prepared for the value functions
};

namespace korvel {

inline bool is_channel(const channelnode* ch) {
  return ch != nullptr && ch->tag == kChannelTag;
}

// A zero-filled record with its tag; -2007 raised when there is no memory.
int16_t new_channel_record(channelnode** out);
// A record for an existing CN block: conversion resolved from its CC link, step counters 0,
// appended to the list. On failure nothing is left behind and *out stays unset.
int16_t make_channel_record(channelnode** out, mdf_group* group, mdf_file* file, Node* cn);
// Releases a record made by new_channel_record that is in no list.
void destroy_channel_record(channelnode* ch);
// Appends at the tail of the list of open channels.
int16_t append_channel(channelnode* ch);
// Takes the record out of the list; -2010 (returned) when it is not there.
int16_t remove_channel(channelnode* ch);
// Frees a record that is no longer in the list.
int16_t free_channel(channelnode* ch);

// Where a channel's value lies in the record data.
struct ChannelPosition {
  uint8_t bit_offset;    // 0..7
  uint32_t byte_offset;  // start bit / 8 plus the additional byte offset
  uint32_t byte_span;    // bytes the value touches
};
ChannelPosition channel_position(const Node* cn);
// The additional byte offset of a CN block (0 for blocks shorter than 228 bytes).
uint16_t additional_byte_offset(const Node* cn);

}  // namespace korvel
