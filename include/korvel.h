/*
 * korvel.h - the C interface of the Korvel library for MDF 3.x measurement data files.
 *
 * Every function returns a status (signed 16-bit) unless its comment says otherwise and
 * stores it as the process-wide last status. 0 is success, negative codes are errors,
 * positive codes are notices. The first negative status raised after mdfOpen is kept as
 * the sticky error: while it is set, nearly every function returns it at once and does
 * nothing; only mdfOpen clears it.
 *
 * Texts and tables handed out through pointer-to-pointer arguments point into library
 * storage; they stay valid until the next call of the same kind or until the file is
 * closed. Callers copy them. Pointers into block images (parameters, table points,
 * trigger events) are not aligned for their element type: read them with memcpy.
 *
 * The C types keep the widths they have on 64-bit Windows on every platform: short 16,
 * int 32, long 32 bits, pointers 64 bits.
 *
 * The library starts no threads and locks nothing: call it from one thread at a time.
 */
#ifndef KORVEL_H
#define KORVEL_H

#include <stddef.h>
#include <stdint.h>

/* On Windows the functions come from korvel.dll. Define KORVEL_STATIC before including this
 * header when the library's objects are linked into the program itself. */
#if defined(_WIN32)
#if defined(KORVEL_BUILDING)
#define KORVEL_API __declspec(dllexport)
#elif defined(KORVEL_STATIC)
#define KORVEL_API
#else
#define KORVEL_API __declspec(dllimport)
#endif
#else
#define KORVEL_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------
 * Status codes
 * ------------------------------------------------------------------------------------- */
#define MDF_OK 0
#define MDF_END_OF_GROUP 1              /* "end of group, no further record" */
#define MDF_RECORD_NOT_FOUND 2          /* "record not found" */
#define MDF_CHN_NAME_NOT_FOUND 3        /* "channel name not found" */
#define MDF_CHN_NOT_FOUND 4             /* "channel not found" */
#define MDF_ALREADY_SORTED 5            /* "file is already sorted" */
#define MDF_RANGE_UNKNOWN 6             /* "value range is unknown" */
#define MDF_GRP_NOT_FOUND 7             /* "group not found" */
#define MDF_CYCLES_INCREASED 8          /* "cycle counter has been corrected (increased)" */
#define MDF_CYCLES_DECREASED 9          /* "cycle counter has been corrected (decreased)" */
#define MDF_FILE_NOT_OPENED 1000        /* "could not open file" */
#define MDF_GROUP_NOT_FOUND 1001        /* "group not found" */
#define MDF_CHANNEL_NOT_FOUND 1002      /* "channel not found" */
#define MDF_NO_TIME_CHANNEL 1003        /* "time channel does not exist" */
#define MDF_NO_FORMULA 1004             /* "no formula found" */
#define MDF_UNKNOWN_FORMULA 1005        /* "unknown formula type" */
#define MDF_NO_TRIGGER 1006             /* "triggerinfo not found" */
#define MDF_TRIGGER_UNKNOWN 1007        /* "tirgger not known" */
#define MDF_TIME_CHN_NOT_FOUND 1008     /* "time channel not found" */
#define MDF_NO_MODULE_INFO 1009         /* "module info not found" */
#define MDF_NOT_SORTED 1010             /* "file is not sorted" */
#define MDF_NOT_A_TABLE 1011            /* "illegal formula type, not a table" */
#define MDF_GROUP_IS_OPEN 1012          /* "group must not be open" */
#define MDF_CN_TOO_SHORT 1013           /* "length of channel block (in this version) is not ..." */
#define MDF_BITS_OVER_32 1014           /* "bit size of channel > 32 and no XxDbl method used" */
#define MDF_BITS_OVER_64 1015           /* "bit size of channel > 64 and no XxData method used" */
#define MDF_NOT_BYTE_ALIGNED 1016       /* "method can only be used if both bit size and ..." */
#define MDF_NOT_A_VTAB 1017             /* "illegal formula type, not a verbal table" */
#define MDF_NOT_A_VTABR 1018            /* "illegal formula type, not a area verbal table" */
#define MDF_VTAB_INDEX 1019             /* "index outside range of verbal conversion table" */
#define MDF_UNSUPPORTED_TYPE 1020       /* "Unsupported channel datatype" */
#define MDF_UNSUPPORTED_RULE 1021       /* "Unsupported conversion rule type" */
#define MDF_NO_TARGET_ACCESS 1022       /* "no access to target file!" */
#define MDF_ALREADY_OPEN 1023           /* "library already open, cannot be initialized twice!" */
#define MDF_NEWER_VERSION 1024          /* "files has newer MDF version than supported by ..." */
#define MDF_BAD_TIME_STAMP 1025         /* "invalid (or very unlikely) time stamp found" */
#define MDF_ERR_NOT_INITIALIZED (-1000) /* "MDF library not initialized" */
#define MDF_ERR_BAD_FILE (-1001)        /* "bad filehandle" */
#define MDF_ERR_BAD_GROUP (-1002)       /* "bad grouphandle" */
#define MDF_ERR_BAD_CHANNEL (-1003)     /* "bad channelhandle" */
#define MDF_ERR_OPEN_MODE (-1004)       /* "illegal group open mode" */
#define MDF_ERR_SEEK_MODE (-1005)       /* "illegal seek mode" */
#define MDF_ERR_CHANNEL_TYPE (-1006)    /* "illegal channel type" */
#define MDF_ERR_CHANNEL_BITS (-1007)    /* "illegal nummer of channel bits" */
#define MDF_ERR_VALUE_TYPE (-1008)      /* "illegal channel value type" */
#define MDF_ERR_TWO_CREATES (-1009)     /* "simulanous groups creates are not allowed" */
#define MDF_ERR_WRITE (-2000)           /* "could not write file" */
#define MDF_ERR_READ (-2001)            /* "could not read file" */
#define MDF_ERR_SEEK (-2002)            /* "could not locate pos in file" */
#define MDF_ERR_CLOSE (-2003)           /* "unable to close file" */
#define MDF_ERR_FORMAT (-2004)          /* "file format" */
#define MDF_ERR_INCONSISTENT (-2005)    /* "inconsistent file" */
#define MDF_ERR_TOO_MANY_CHANNELS (-2006) /* "too many channels" */
#define MDF_ERR_NO_MEMORY (-2007)         /* "out of memory" */
#define MDF_ERR_UNKNOWN_BLOCK (-2008)     /* "unknown block" */
#define MDF_ERR_UNKNOWN_LINK (-2009)      /* "unknown link" */
#define MDF_ERR_NODE_NOT_FOUND (-2010)    /* "node not found" */
#define MDF_ERR_FATAL (-2011)             /* "fatal error" */
#define MDF_ERR_FLOAT_FORMAT (-2012)      /* "incompatible float format, no modify" */
#define MDF_ERR_USER_ABORT (-2013)        /* "user abort" */
#define MDF_ERR_FILE_TOO_LARGE (-2014)    /* "file exceeds maximum size for MDF files" */

/* File and group open modes. */
#define MDF_OPEN_READ 0
#define MDF_OPEN_MODIFY 1
#define MDF_OPEN_CREATE 2

/* Record seek modes (mdfGrpSeek). */
#define MDF_SEEK_ABS 0
#define MDF_SEEK_REL 16

/* Time seek modes (mdfGrpSeekTime): a choice in the low three bits, MDF_SEEK_REL makes the
 * time relative to the current record's time. */
#define MDF_SEEK_TIME_NEAREST 0
#define MDF_SEEK_TIME_EXACT 1
#define MDF_SEEK_TIME_BEFORE 2
#define MDF_SEEK_TIME_AT_OR_BEFORE 3
#define MDF_SEEK_TIME_AFTER 4
#define MDF_SEEK_TIME_AT_OR_AFTER 5
#define MDF_SEEK_TIME_LAST_PROBE 6

/* Channel types. */
#define MDF_CHN_DATA 0
#define MDF_CHN_TIME 1

/* Signal data types of the channel block. */
#define MDF_DT_UINT 0
#define MDF_DT_INT 1
#define MDF_DT_FLOAT 2
#define MDF_DT_DOUBLE 3
#define MDF_DT_VAX_F 4
#define MDF_DT_VAX_G 5
#define MDF_DT_VAX_D 6
#define MDF_DT_STRING 7
#define MDF_DT_BYTES 8
#define MDF_DT_UINT_BE 9
#define MDF_DT_INT_BE 10
#define MDF_DT_FLOAT_BE 11
#define MDF_DT_DOUBLE_BE 12
#define MDF_DT_UINT_LE 13
#define MDF_DT_INT_LE 14
#define MDF_DT_FLOAT_LE 15
#define MDF_DT_DOUBLE_LE 16

/* Conversion rule types of the conversion block. */
#define MDF_CC_FRM_LIN 0
#define MDF_CC_FRM_ITAB 1
#define MDF_CC_FRM_TAB 2
#define MDF_CC_FRM_POL 6
#define MDF_CC_FRM_EXP 7
#define MDF_CC_FRM_LOG 8
#define MDF_CC_FRM_RAT 9
#define MDF_CC_FRM_TXT 10
#define MDF_CC_FRM_VTAB 11
#define MDF_CC_FRM_VTABR 12
#define MDF_CC_FRM_NON 65535

/* Module (source) types of the extension block. */
#define MDF_CE_GEN 0
#define MDF_CE_AIM 1
#define MDF_CE_DIM 2
#define MDF_CE_CANIM 3
#define MDF_CE_Q24 4
#define MDF_CE_LA1 5
#define MDF_CE_ACAN 6
#define MDF_CE_ETK 7
#define MDF_CE_LA2 8
#define MDF_CE_DIM2 9
#define MDF_CE_THS 10
#define MDF_CE_ADS 11
#define MDF_CE_QPSI1 12
#define MDF_CE_QPSI2 13
#define MDF_CE_QA1 14
#define MDF_CE_QCAN 15
#define MDF_CE_QNA 16
#define MDF_CE_QNV 17
#define MDF_CE_SSC 18
#define MDF_CE_QCN 19

/* Sort flags (MdfSortParams.flags). */
#define MDF_SORT_RECOUNT 0x0001u    /* keep records beyond a declared count, raise the count */
#define MDF_SORT_SHRINK 0x0002u     /* lower counts of short groups and close up the gaps */
#define MDF_SORT_CHECK_TIME 0x0004u /* check every record's time stamp */
#define MDF_SORT_FINALIZE 0x1000u   /* accept and finalize unfinished files; implies RECOUNT */

/* ---------------------------------------------------------------------------------------
 * Handle types
 * ------------------------------------------------------------------------------------- */
typedef struct mdf_file mdf_file;       /* an open file */
typedef struct mdf_group mdf_group;     /* an open channel group with its record buffer */
typedef struct channelnode channelnode; /* an open channel */

/* The 128-byte module record of an extension block, one member per layout. Texts are
 * fixed-width fields, zero-padded, not terminated when full. */
#if defined(_MSC_VER)
#pragma pack(push, 1)
#define KORVEL_PACKED
#else
#define KORVEL_PACKED __attribute__((packed))
#endif
typedef struct KORVEL_PACKED mdf_ce_device { /* types 2, 7, 9, 12, 13, 18 */
  uint16_t module;
  uint32_t address;
  char description[80];
  char ecu_id[32];
} mdf_ce_device;
typedef struct KORVEL_PACKED mdf_ce_device_pair { /* type 6 */
  uint16_t module;
  uint32_t address;
  char description[80];
  char ecu_id[32];
  uint16_t value5;
  uint16_t value6;
} mdf_ce_device_pair;
typedef struct KORVEL_PACKED mdf_ce_bus { /* types 3, 15 */
  uint16_t module;
  uint16_t value2;
  char text1[20];
  char text2[32];
  uint16_t value5;
} mdf_ce_bus;
typedef struct KORVEL_PACKED mdf_ce_analog { /* types 1, 14 */
  uint16_t b;
  uint64_t d;
  double c;
  uint16_t a;
} mdf_ce_analog;
typedef struct KORVEL_PACKED mdf_ce_named_pair { /* types 4, 5, 8, 10, 11 */
  char name[32];
  uint16_t value2;
  uint16_t value3;
} mdf_ce_named_pair;
typedef struct KORVEL_PACKED mdf_ce_text { /* types 0, 16, 17 */
  char text[32];
} mdf_ce_text;
typedef struct KORVEL_PACKED mdf_ce_bus_message { /* type 19 */
  uint32_t message_id;
  uint32_t channel_index;
  char message_name[36];
  char sender_name[36];
} mdf_ce_bus_message;
typedef union ce_info {
  mdf_ce_device device;
  mdf_ce_device_pair device_pair;
  mdf_ce_bus bus;
  mdf_ce_analog analog;
  mdf_ce_named_pair named_pair;
  mdf_ce_text text;
  mdf_ce_bus_message bus_message;
  uint8_t bytes[128];
} ce_info;

/* Parameters of mdfSortWithProgress, laid out with 4-byte packing (size 56, flags at 52). */
typedef int (*MdfSortAbortFn)(void* userData);                  /* non-zero stops the run */
typedef void (*MdfSortStartFn)(void* userData);                 /* called once at the start */
typedef void (*MdfSortProgressFn)(int percent, void* userData); /* percent 0..100 */
#if defined(_MSC_VER)
#pragma pack(pop)
#endif
#pragma pack(push, 4)
typedef struct MdfSortParams {
  uint32_t structSize; /* sizeof(MdfSortParams) as the caller knows it */
  const char* srcFile;
  const char* dstFile; /* null or empty: replace the source */
  void* userData;
  MdfSortAbortFn pfnAbort;
  MdfSortStartFn pfnStart;
  MdfSortProgressFn pfnProgress;
  uint32_t flags; /* MDF_SORT_* */
} MdfSortParams;
#pragma pack(pop)

/* ---------------------------------------------------------------------------------------
 * Library, status, log and memory
 * ------------------------------------------------------------------------------------- */

/* Initialises the library: resets all state, clears the sticky error, stores the program
 * identifier written into created files (null: "KORVEL"; at most 8 characters).
 * Returns 0, or 1023 when already open (nothing changes then). */
KORVEL_API int16_t mdfOpen(const char* programId);
/* Closes every open file (with its groups and channels) level by level; depth becomes 0.
 * Returns the status of the last file close, 0 when the library was closed. */
KORVEL_API int16_t mdfClose(void);
/* Opens a nested context (mdfOpen(NULL) when closed). Returns 0. */
KORVEL_API int16_t mdfContextOpen(void);
/* Closes the files opened in the innermost context (mdfClose at depth 1). Returns 0. */
KORVEL_API int16_t mdfContextClose(void);
/* The sticky first error, 0 if none. */
KORVEL_API int16_t mdfGetErrorCode(void);
/* The sticky first error's formatted line (at most 128 characters), "" if none. */
KORVEL_API const char* mdfGetErrorText(void);
/* The built-in text of a status code, as mdfGetTextStrD. */
KORVEL_API const char* mdfGetMsgStr(int16_t code);
/* The built-in text of a status code: "" for 0, NULL for a code without text. */
KORVEL_API const char* mdfGetTextStrD(int16_t code);
/* The text of a status code from the user text file, then "KORVEL.TXT", else
 * "[KORVEL] Error Nr.: <code>". The buffer is overwritten by the next call. */
KORVEL_API const char* mdfGetTextStrF(int16_t code);
/* Sets the user message text file (at most 260 characters; not checked). Returns 0. */
KORVEL_API int16_t mdfSetUsrTextFile(const char* path);
/* Prints formatted text to the log file "KORVEL.LOG" in the current directory, created at
 * the first line. Returns the number of characters printed, 0 if the log cannot be made. */
KORVEL_API int32_t mdfPrintf(const char* format, ...);
/* Logs "[KORVEL-ERROR] <text>\n". */
KORVEL_API int32_t mdfPrintError(const char* text);
/* Logs "[KORVEL-Message] <text>\n". */
KORVEL_API int32_t mdfPrintMessage(const char* text);
/* Reports an internal consistency failure of a source unit; raises and returns -2011. */
KORVEL_API int16_t mdfAssertFailed(const char* unit, int32_t line);
/* Allocates a zero-filled, tagged block; NULL when no memory is left. */
KORVEL_API void* mdfMalloc(uint32_t size);
/* Releases a block from mdfMalloc (a block without the tag raises -2011 and is freed). */
KORVEL_API void mdfFree(void* p);
/* Memory the library may use for sort buffers: half the available physical memory,
 * clamped to 16 MiB .. 128 MiB, in bytes. */
KORVEL_API int32_t mdfCoreLeft(void);
/* Copies the library version "5.87 (2017-06-27)" into dst with a bounded copy of len
 * characters (no terminator beyond what the copy gives). Returns dst. */
KORVEL_API char* mdfGetKorvelVersion(char* dst, int32_t len);
/* Copies the newest supported format version "3.30    " the same way. Returns dst. */
KORVEL_API char* mdfGetMdfFormatVersion(char* dst, int32_t len);
/* Stores an output float format for callers; it has no other effect. Returns 0. */
KORVEL_API int16_t mdfSetOutputFloatFormat(uint16_t format);
/* Does nothing; callers may call it. */
KORVEL_API void mdfActivityInfo(void* a, void* b);
/* Load-time entry: stores the module path and returns 1. Runs by itself at load. */
KORVEL_API int32_t LibMain(void* module, uint16_t reason, uint16_t clearPath, char* reserved);

/* ---------------------------------------------------------------------------------------
 * Files
 * ------------------------------------------------------------------------------------- */

/* Opens a file: mode 0 read, 1 modify, 2 create (an existing file is replaced).
 * -1000 library closed, -1004 bad mode, 1000 cannot open, -2004 file format, -2012 VAX
 * floats in modify mode, and the I/O statuses. *file is NULL after a failure to open or read
 * the file; a stored error, -1000, -1004 and a null name leave it untouched. */
KORVEL_API int16_t mdfFileOpen(mdf_file** file, const char* name, uint16_t mode);
/* Closes the file's groups, writes the header back (modes 1, 2) and releases the file.
 * NULL gives 0; -1001 bad handle. */
KORVEL_API int16_t mdfFileClose(mdf_file* file);
/* Hands out the header fields; each out may be NULL. Date and time are shared buffers;
 * name, division, project and subject point into 32-character fields that are not
 * terminated when full. -1001. */
KORVEL_API int16_t mdfFileGetInfo(mdf_file* file, const char** date, const char** time,
                                  const char** text, const char** name, const char** division,
                                  const char** project, const char** subject);
/* Changes the header fields that are not NULL; an empty text removes the comment. Setting
 * date or time clears the time stamp. Written at close. -1001, -2007. */
KORVEL_API int16_t mdfFileSetInfo(mdf_file* file, const char* date, const char* time,
                                  const char* text, const char* name, const char* division,
                                  const char* project, const char* subject);
/* Single-field forms of mdfFileGetInfo. -1001. */
KORVEL_API int16_t mdfFileGetDate(mdf_file* file, const char** date);
KORVEL_API int16_t mdfFileGetTime(mdf_file* file, const char** time);
KORVEL_API int16_t mdfFileGetText(mdf_file* file, const char** text);
KORVEL_API int16_t mdfFileGetName(mdf_file* file, const char** name);
KORVEL_API int16_t mdfFileGetDivision(mdf_file* file, const char** division);
KORVEL_API int16_t mdfFileGetProject(mdf_file* file, const char** project);
KORVEL_API int16_t mdfFileGetSubject(mdf_file* file, const char** subject);
/* Single-field forms of mdfFileSetInfo. -1001, -2007. */
KORVEL_API int16_t mdfFileSetDate(mdf_file* file, const char* date);
KORVEL_API int16_t mdfFileSetTime(mdf_file* file, const char* time);
KORVEL_API int16_t mdfFileSetText(mdf_file* file, const char* text);
KORVEL_API int16_t mdfFileSetName(mdf_file* file, const char* name);
KORVEL_API int16_t mdfFileSetDivision(mdf_file* file, const char* division);
KORVEL_API int16_t mdfFileSetProject(mdf_file* file, const char* project);
KORVEL_API int16_t mdfFileSetSubject(mdf_file* file, const char* subject);
/* Number of channel groups in the file. -1001. */
KORVEL_API int16_t mdfFileGroups(uint16_t* count, mdf_file* file);
/* Number of channels in all channel groups. -1001, or a group open status. */
KORVEL_API int16_t mdfFileChannels(uint32_t* count, mdf_file* file);
/* 0 if every data group holds one channel group, 1010 if not. -1001. */
KORVEL_API int16_t mdfFileIsSort(mdf_file* file);

/* ---------------------------------------------------------------------------------------
 * Groups and records
 * ------------------------------------------------------------------------------------- */

/* Opens channel group `number` (1-based over all data groups) in mode 0 read, 1 modify or
 * 2 create (a new data group at the head of the file's list). -1001, -1004, -1009, 1001,
 * -2002, -2004, -2007, -2014. */
KORVEL_API int16_t mdfGrpOpen(mdf_group** group, mdf_file* file, uint16_t number, uint16_t mode);
/* Closes the group's channels, writes its blocks (modes 1, 2) and frees it. -1002, -2002,
 * and write statuses. */
KORVEL_API int16_t mdfGrpClose(mdf_group* group);
/* Removes channel group `number` from a file opened in mode 1. -1001, -1004, 1001, 1012. */
KORVEL_API int16_t mdfGrpDelete(mdf_file* file, uint16_t number);
/* First open group of the file in order of opening; 7 and NULL if none. */
KORVEL_API int16_t mdfGrpGetFirst(mdf_group** group, mdf_file* file);
/* Next open group of the same file; 7 and NULL at the end. */
KORVEL_API int16_t mdfGrpGetNext(mdf_group** group);
/* Number of channels of the group. -1002. */
KORVEL_API int16_t mdfGrpChannels(uint16_t* count, mdf_group* group);
/* Number of records (appended so far for a created group). -1002. */
KORVEL_API int16_t mdfGrpRecords(uint32_t* count, mdf_group* group);
/* Current record index. -1002. */
KORVEL_API int16_t mdfGrpTell(uint32_t* index, mdf_group* group);
/* Moves the cursor (mode MDF_SEEK_ABS or MDF_SEEK_REL) and reads the record. 1 outside
 * the records (cursor unmoved), -1002, -1005, -2004. */
KORVEL_API int16_t mdfGrpSeek(mdf_group* group, int32_t position, uint16_t mode);
/* Writes the record buffer at the current record. -1002, -1004, -2000. */
KORVEL_API int16_t mdfGrpWrite(mdf_group* group);
/* Appends the record buffer as a new record (mode 2). -1002, -1004, -2000, -2014. */
KORVEL_API int16_t mdfGrpWriteAppend(mdf_group* group);
/* Stores the address of the record data and returns the buffer size (record size + 24).
 * No handle check. */
KORVEL_API int32_t mdfGrpBuffer(uint8_t** data, mdf_group* group);
/* Opens the group holding channel `number` (1-based over the file) and that channel
 * (mode 0 only). 4 if no such channel; -1001, -1004. */
KORVEL_API int16_t mdfGrpChnOpen(channelnode** channel, mdf_group** group, mdf_file* file,
                                 uint16_t number, uint16_t mode);
/* Opens the first group with a channel of that name (exact, then ignoring case) and the
 * channel. 4 if none; -1001, -1004. */
KORVEL_API int16_t mdfGrpChnOpenName(channelnode** channel, mdf_group** group, mdf_file* file,
                                     const char* name, uint16_t mode);
/* Physical time of the current record. 1003 without time channel, 1021. -1002. */
KORVEL_API int16_t mdfGrpGetTime(double* time, mdf_group* group);
/* Encodes a time into the current record. 1003, 1021, -1002. */
KORVEL_API int16_t mdfGrpSetTime(mdf_group* group, double time);
/* Moves the cursor to a record chosen by time (MDF_SEEK_TIME_*, optionally | MDF_SEEK_REL).
 * 1 past the records, 2 no record qualifies, -1002. */
KORVEL_API int16_t mdfGrpSeekTime(mdf_group* group, double time, uint16_t mode);
/* The group comment, "" if none. -1002. */
KORVEL_API int16_t mdfGrpGetText(mdf_group* group, const char** text);
/* Sets the group comment (written at close); "" removes it. -1002, -2007. */
KORVEL_API int16_t mdfGrpSetText(mdf_group* group, const char* text);
/* Trigger information of the group's data group: comment (NULL if none), event count and
 * the events (24-byte records of trigger, pre- and post-trigger time as doubles; all
 * `count` of them can be read, events a damaged block lacks read as zeros). 1006 if none;
 * -1002. */
KORVEL_API int16_t mdfGrpGetTrigger(mdf_group* group, const char** comment, uint16_t* count,
                                    const void** events);
/* Sets the trigger information (written when a created group is closed): a comment (NULL
 * or "" for none) and `count` events of three doubles each. -1002, -2004 (more than 2729
 * events), -2007. */
KORVEL_API int16_t mdfGrpSetTrigger(mdf_group* group, const char* comment, uint16_t count,
                                    const double* events);

/* ---------------------------------------------------------------------------------------
 * Channels
 * ------------------------------------------------------------------------------------- */

/* Opens channel `index` (1-based, time channel included). 1002 and NULL if none; -1002. */
KORVEL_API int16_t mdfChnOpen(channelnode** channel, mdf_group* group, uint16_t index);
/* Opens a channel by short name (exact, then ignoring case; time channels skipped).
 * 3 if none; -1002. */
KORVEL_API int16_t mdfChnOpenName(channelnode** channel, mdf_group* group, const char* name);
/* Opens the first channel of a channel type. 1002 if none; -1002. */
KORVEL_API int16_t mdfChnOpenType(channelnode** channel, mdf_group* group, uint16_t type);
/* Opens the first time channel. 1008 if none; -1002. */
KORVEL_API int16_t mdfChnOpenTime(channelnode** channel, mdf_group* group);
/* Creates a channel in a group open in mode 2. -1002, -1007, -1008, -2007. */
KORVEL_API int16_t mdfChnCreate(channelnode** channel, mdf_group* group, uint16_t type,
                                uint16_t bits, uint16_t valueType, const char* name);
/* Creates a copy of a channel (properties, conversion, module information) in another
 * group, possibly of another file. 1013, -1002, -1003, -2007. */
KORVEL_API int16_t mdfChnDuplicate(channelnode** channel, mdf_group* target, channelnode* source);
/* Finishes a pending write and frees the handle. NULL gives 0. */
KORVEL_API int16_t mdfChnClose(channelnode* channel);
/* First open channel of the group in order of opening; 4 and NULL if none. */
KORVEL_API int16_t mdfChnGetFirst(mdf_group* group, channelnode** channel);
/* Next open channel of the same group; 4 and NULL at the end. */
KORVEL_API int16_t mdfChnGetNext(channelnode** channel);

/* Channel properties; each out may be NULL. Texts point into the block images. -1003. */
KORVEL_API int16_t mdfChnGetInfo(channelnode* channel, uint16_t* type, uint16_t* bits,
                                 uint16_t* valueType, const char** name, const char** desc,
                                 const char** text);
KORVEL_API int16_t mdfChnGetType(channelnode* channel, uint16_t* type);
KORVEL_API int16_t mdfChnGetBits(channelnode* channel, uint16_t* bits);
KORVEL_API int16_t mdfChnGetValueType(channelnode* channel, uint16_t* valueType);
KORVEL_API int16_t mdfChnGetName(channelnode* channel, const char** name);
KORVEL_API int16_t mdfChnGetDesc(channelnode* channel, const char** desc);
KORVEL_API int16_t mdfChnGetText(channelnode* channel, const char** text);
/* Sets name (32), description (128) and comment; NULL leaves a field, "" removes the
 * comment. -1003, -2007. */
KORVEL_API int16_t mdfChnSetInfo(channelnode* channel, const char* name, const char* desc,
                                 const char* text);
KORVEL_API int16_t mdfChnSetName(channelnode* channel, const char* name);
KORVEL_API int16_t mdfChnSetDesc(channelnode* channel, const char* desc);
KORVEL_API int16_t mdfChnSetText(channelnode* channel, const char* text);
/* Additional byte offset, long name and display name (from comment markers for short
 * channel blocks). -1003. */
KORVEL_API int16_t mdfChnGetInfoExt(channelnode* channel, uint16_t* byteOffset,
                                    const char** longName, const char** displayName);
/* Sets them (byte offset 0 and NULL texts leave a field). 1013 when the channel block is
 * too short; -1003, -2007. */
KORVEL_API int16_t mdfChnSetInfoExt(channelnode* channel, int16_t byteOffset, const char* longName,
                                    const char* displayName);
KORVEL_API int16_t mdfChnGetLongName(channelnode* channel, const char** longName);
KORVEL_API int16_t mdfChnGetDisplayName(channelnode* channel, const char** displayName);
KORVEL_API int16_t mdfChnSetLongName(channelnode* channel, const char* longName);
KORVEL_API int16_t mdfChnSetDisplayName(channelnode* channel, const char* displayName);
/* Sampling rate of the channel. -1003. */
KORVEL_API int16_t mdfChnGetRaster(channelnode* channel, double* raster);
KORVEL_API int16_t mdfChnSetRaster(channelnode* channel, double raster);
/* Bit offset (0..7) and byte offset of the value in the record data. -1003. */
KORVEL_API int16_t mdfChnGetBitAndByteOffset(channelnode* channel, uint8_t* bitOffset,
                                             uint32_t* byteOffset);
/* Raw value range; 6 when not valid. -1003. */
KORVEL_API int16_t mdfChnGetHexRange(double* min, double* max, channelnode* channel);
KORVEL_API int16_t mdfChnSetHexRange(channelnode* channel, double min, double max);
/* Physical value range of the conversion; 6 when none or not valid. -1003. */
KORVEL_API int16_t mdfChnGetPhyRange(double* min, double* max, channelnode* channel);
KORVEL_API int16_t mdfChnSetPhyRange(channelnode* channel, double min, double max);

/* Values of the record at the cursor + offset (the cursor is restored): raw bytes (start
 * bit and bits multiples of 8, else 1016), raw as double, raw as integer, physical.
 * 1, 1014, 1015, 1016, 1020, 1021, -1003. */
KORVEL_API int16_t mdfChnGetData(uint8_t* data, uint32_t* length, channelnode* channel,
                                 int16_t offset);
KORVEL_API int16_t mdfChnGetHex(double* value, channelnode* channel, int16_t offset);
KORVEL_API int16_t mdfChnGetHexInt(uint64_t* value, channelnode* channel, int16_t offset);
KORVEL_API int16_t mdfChnGetPhy(double* value, channelnode* channel, int16_t offset);
/* Values into the current record in memory. 1016, 1020, 1021, -1003. */
KORVEL_API int16_t mdfChnSetData(channelnode* channel, const uint8_t* data, uint32_t length);
KORVEL_API int16_t mdfChnSetHex(channelnode* channel, double value);
KORVEL_API int16_t mdfChnSetHexInt(channelnode* channel, uint64_t value);
KORVEL_API int16_t mdfChnSetPhy(channelnode* channel, double value);
/* Values of the next record (the first read of an opened handle takes the current one). */
KORVEL_API int16_t mdfChnReadData(uint8_t* data, uint32_t* length, channelnode* channel);
KORVEL_API int16_t mdfChnReadHex(double* value, channelnode* channel);
KORVEL_API int16_t mdfChnReadHexInt(uint64_t* value, channelnode* channel);
KORVEL_API int16_t mdfChnReadPhy(double* value, channelnode* channel);
/* Values into the next record (every write after the first stores the current record and
 * moves on; in mode 2 by appending). */
KORVEL_API int16_t mdfChnWriteData(channelnode* channel, const uint8_t* data, uint32_t length);
KORVEL_API int16_t mdfChnWriteHex(channelnode* channel, double value);
KORVEL_API int16_t mdfChnWriteHexInt(channelnode* channel, uint64_t value);
KORVEL_API int16_t mdfChnWritePhy(channelnode* channel, double value);

/* ---------------------------------------------------------------------------------------
 * Conversion rules
 * ------------------------------------------------------------------------------------- */

/* Type, unit (20 characters) and parameters of the channel's rule; each out may be NULL.
 * 1004 (not logged) without a rule; -1003. */
KORVEL_API int16_t mdfChnGetForm(channelnode* channel, uint16_t* type, const char** unit,
                                 const void** params);
/* A table rule (types 1, 2): point count and (raw, physical) pairs of doubles. 1004, 1011. */
KORVEL_API int16_t mdfChnGetFormTab(channelnode* channel, uint16_t* type, const char** unit,
                                    const uint16_t** count, const void** points);
/* A verbal table (type 11): count and 40-byte entries (double, 32-character text). 1004,
 * 1017. */
KORVEL_API int16_t mdfChnGetFormVTab(channelnode* channel, uint16_t* type, const char** unit,
                                     const uint16_t** count, const void** entries);
/* A verbal range table (type 12): offset and factor derived from the first text, count
 * and 20-byte entries (lower, upper, text link). 1004, 1018. */
KORVEL_API int16_t mdfChnGetFormVTabR(channelnode* channel, uint16_t* type, const char** unit,
                                      double* offset, double* factor, const uint16_t** count,
                                      const void** entries);
/* Text of entry `index` of a verbal (range) table. 1004, 1017, 1019. */
KORVEL_API int16_t mdfChnGetFormVTabText(channelnode* channel, uint16_t index, const char** text);
/* Sets a rule of type 0 (2 parameters), 6 (6), 7 (7) or 8 (7), the parameters given as
 * doubles. 1005 for other types; -1003, -2007. */
KORVEL_API int16_t mdfChnSetForm(channelnode* channel, uint16_t type, const char* unit, ...);
KORVEL_API int16_t mdfChnSetFormLin(channelnode* channel, const char* unit, double p1, double p2);
KORVEL_API int16_t mdfChnSetFormPol(channelnode* channel, const char* unit, double p1, double p2,
                                    double p3, double p4, double p5, double p6);
KORVEL_API int16_t mdfChnSetFormExp(channelnode* channel, const char* unit, double p1, double p2,
                                    double p3, double p4, double p5, double p6, double p7);
KORVEL_API int16_t mdfChnSetFormLog(channelnode* channel, const char* unit, double p1, double p2,
                                    double p3, double p4, double p5, double p6, double p7);
/* Sets a table rule (type 1 or 2) of `count` (raw, physical) pairs. 1005; -1003, -2007. */
KORVEL_API int16_t mdfChnSetFormTab(channelnode* channel, uint16_t type, const char* unit,
                                    uint16_t count, const double* points);

/* ---------------------------------------------------------------------------------------
 * Module information (extension blocks)
 * ------------------------------------------------------------------------------------- */

/* Links a new extension block of `type` holding the record to the channel (an earlier one
 * stays in the file, unlinked). Closing the group writes it in a created group and in a file
 * open for modifying. The block holds the record's first 122 bytes, which every layout keeps
 * to; a null record stores zeros. 0; -1003, -2007. */
KORVEL_API int16_t mdfChnSetModuleInfo(channelnode* channel, uint16_t type, const ce_info* info);
/* Type and record of the channel's extension block; each out may be null. The type is set to
 * 65535 and the record to null first. The record points into the block (128 readable bytes,
 * zeros beyond the stored block). 0; 1009 (raised) when the channel has none; -1003. */
KORVEL_API int16_t mdfChnGetModuleInfo(channelnode* channel, uint16_t* type, const ce_info** info);
/* mdfChnGetModuleInfo without the record. */
KORVEL_API int16_t mdfChnGetModuleType(channelnode* channel, uint16_t* type);
/* Typed setters, one per module type, arguments in the order of the record's members (the
 * analog layout stores (a, b, c, d) as b, d, c, a); texts are cut to their field widths,
 * without a terminator when they fill them; null texts are empty. 0; -1003, -2007. */
KORVEL_API int16_t mdfChnSetGenInfo(channelnode* channel, const char* text);
KORVEL_API int16_t mdfChnSetAimInfo(channelnode* channel, uint16_t a, uint16_t b, double c,
                                    uint64_t d);
KORVEL_API int16_t mdfChnSetDimInfo(channelnode* channel, uint16_t module, uint32_t address,
                                    const char* description, const char* ecuId);
KORVEL_API int16_t mdfChnSetCanInfo(channelnode* channel, uint16_t module, uint16_t value2,
                                    const char* text1, const char* text2, uint16_t value5);
KORVEL_API int16_t mdfChnSetQ24Info(channelnode* channel, const char* name, uint16_t value2,
                                    uint16_t value3);
KORVEL_API int16_t mdfChnSetLa1Info(channelnode* channel, const char* name, uint16_t value2,
                                    uint16_t value3);
KORVEL_API int16_t mdfChnSetAcanInfo(channelnode* channel, uint16_t module, uint32_t address,
                                     const char* description, const char* ecuId, uint16_t value5,
                                     uint16_t value6);
KORVEL_API int16_t mdfChnSetEtkInfo(channelnode* channel, uint16_t module, uint32_t address,
                                    const char* description, const char* ecuId);
KORVEL_API int16_t mdfChnSetLa2Info(channelnode* channel, const char* name, uint16_t value2,
                                    uint16_t value3);
KORVEL_API int16_t mdfChnSetDm2Info(channelnode* channel, uint16_t module, uint32_t address,
                                    const char* description, const char* ecuId);
KORVEL_API int16_t mdfChnSetThsInfo(channelnode* channel, const char* name, uint16_t value2,
                                    uint16_t value3);
KORVEL_API int16_t mdfChnSetAdsInfo(channelnode* channel, const char* name, uint16_t value2,
                                    uint16_t value3);
KORVEL_API int16_t mdfChnSetQp1Info(channelnode* channel, uint16_t module, uint32_t address,
                                    const char* description, const char* ecuId);
KORVEL_API int16_t mdfChnSetQp2Info(channelnode* channel, uint16_t module, uint32_t address,
                                    const char* description, const char* ecuId);
KORVEL_API int16_t mdfChnSetQa1Info(channelnode* channel, uint16_t a, uint16_t b, double c,
                                    uint64_t d);
KORVEL_API int16_t mdfChnSetQncInfo(channelnode* channel, uint16_t module, uint16_t value2,
                                    const char* text1, const char* text2, uint16_t value5);
KORVEL_API int16_t mdfChnSetQnaInfo(channelnode* channel, const char* text);
KORVEL_API int16_t mdfChnSetQnvInfo(channelnode* channel, const char* text);
KORVEL_API int16_t mdfChnSetSscInfo(channelnode* channel, uint16_t module, uint32_t address,
                                    const char* description, const char* ecuId);
KORVEL_API int16_t mdfChnSetQcnInfo(channelnode* channel, uint32_t messageId, uint32_t channelIndex,
                                    const char* messageName, const char* senderName);
/* Typed getters, the outs in the order of the setters' arguments (each may be null); texts
 * point into the record and run on into the next field when they fill theirs. Types taken:
 * Gen 0, 16, 17 (hands out the record); Aim 1, 14; Dim 2, 7, 9, 12, 13; Can 3, 15; Acan 6;
 * Smb 4, 5, 8, 10, 11; Qcn 19. Type 18 is read by none. 0; 1009 (raised, outs untouched)
 * when there is no extension block or its type is not the getter's; -1003. */
KORVEL_API int16_t mdfChnGetGenInfo(channelnode* channel, const ce_info** info);
KORVEL_API int16_t mdfChnGetAimInfo(channelnode* channel, uint16_t* a, uint16_t* b, double* c,
                                    uint64_t* d);
KORVEL_API int16_t mdfChnGetDimInfo(channelnode* channel, uint16_t* module, uint32_t* address,
                                    const char** description, const char** ecuId);
KORVEL_API int16_t mdfChnGetCanInfo(channelnode* channel, uint16_t* module, uint16_t* value2,
                                    const char** text1, const char** text2, uint16_t* value5);
KORVEL_API int16_t mdfChnGetAcanInfo(channelnode* channel, uint16_t* module, uint32_t* address,
                                     const char** description, const char** ecuId, uint16_t* value5,
                                     uint16_t* value6);
KORVEL_API int16_t mdfChnGetSmbInfo(channelnode* channel, const char** name, uint16_t* value2,
                                    uint16_t* value3);
KORVEL_API int16_t mdfChnGetQcnInfo(channelnode* channel, uint32_t* messageId,
                                    uint32_t* channelIndex, const char** messageName,
                                    const char** senderName);

/* ---------------------------------------------------------------------------------------
 * VAX floating point (in place on the caller's 4 or 8 bytes)
 * ------------------------------------------------------------------------------------- */
KORVEL_API void mdfPCFloatToVAXFFloat(void* value4);
KORVEL_API void mdfVAXFFloatToPCFloat(void* value4);
KORVEL_API void mdfPCDoubleToVAXDFloat(void* value8);
KORVEL_API void mdfVAXDFloatToPCDouble(void* value8);
KORVEL_API void mdfPCDoubleToVAXGFloat(void* value8);
KORVEL_API void mdfVAXGFloatToPCDouble(void* value8);
KORVEL_API void mdfVAXDFloatToVAXGFloat(void* value8);
KORVEL_API void mdfVAXGFloatToVAXDFloat(void* value8);

/* ---------------------------------------------------------------------------------------
 * Sorting, repair and dump
 * ------------------------------------------------------------------------------------- */

/* Rewrites an unsorted file as a sorted one, into `target` or (NULL, "" or the source's
 * name) in place through a temporary file. 0, 5, 8, 9, 1020, 1022, 1024, 1025, -1000,
 * -2000, -2004, -2007, -2013, -2014. */
KORVEL_API int16_t mdfSort(const char* source, const char* target);
/* mdfSort with callbacks and flags. */
KORVEL_API int16_t mdfSortWithProgress(MdfSortParams* params);
/* mdfFileIsSort of a named file: 0 or 1010, or the open status. */
KORVEL_API int16_t mdfTestSort(const char* name);
/* Prints the block structure of a file, block by block, to the log "KORVEL.LOG" through
 * mdfPrintf; hex != 0 adds hex dumps of the header, program, text, conversion and extension
 * blocks. Opens a working context (mdfContextOpen) that stays open after a successful dump.
 * Returns 0, or the status of the file open (then nothing is printed; e.g. 1000, -2004,
 * -2007, -2012) or of the file close. */
KORVEL_API int16_t mdfDump(const char* name, uint32_t hex);

/* =======================================================================================
 * Korvel additions to the classic interface: array reads
 *
 * One channel over a range of records into the caller's array, read in large pieces from the
 * data section. `first` is the 0-based index of the first record of the channel's group and
 * `count` the number of values asked for; *done (may be NULL) receives the number of values
 * stored, which is fewer than `count` at the end of the group. Every value is bit for bit
 * the one mdfChnGetPhy / mdfChnGetHex / mdfChnGetHexInt give for the same record, in sorted
 * and unsorted data groups; the record at the group's cursor is taken from the record buffer,
 * as those functions take it. The group's record cursor and record buffer do not move and
 * the channel's read counter does not change.
 *
 * Statuses, as for the per-value functions (a stored error is returned first, the result is
 * the last status):
 *   0      all `count` values read (also for count 0);
 *   1      fewer than `count` values: the group ends (none when `first` is at or past it);
 *   1016   bytes only: start bit or bit count not a multiple of 8 (*done 0);
 *   1020   the layout cannot be decoded (as for the per-value function; *done 0, nothing
 *          stored);
 *   1021   physical values only: unsupported conversion rule; the values stored are the raw
 *          values, as mdfChnGetPhy gives them (takes precedence over 1);
 *   -1002 / -1003  bad group / channel handle (raised);
 *   -2004  a record of the range cannot be read (damaged file, raised); *done counts the
 *          values stored before it;
 *   -2011  invalid argument (raised, as for a NULL handle out of the open functions): a NULL
 *          array with `count` above 0, or a slot width below the channel's byte size.
 * ===================================================================================== */

/* Physical values (mdfChnGetPhy), raw values as double (mdfChnGetHex) and raw values as
 * unsigned 64-bit integers, two's complement for signed types (mdfChnGetHexInt). */
KORVEL_API int16_t mdfChnReadPhyArray(double* values, uint32_t* done, channelnode* channel,
                                      uint32_t first, uint32_t count);
KORVEL_API int16_t mdfChnReadHexArray(double* values, uint32_t* done, channelnode* channel,
                                      uint32_t first, uint32_t count);
KORVEL_API int16_t mdfChnReadHexIntArray(uint64_t* values, uint32_t* done, channelnode* channel,
                                         uint32_t first, uint32_t count);
/* Physical times of the group's time channel (mdfGrpGetTime); 1003 (raised) without one. */
KORVEL_API int16_t mdfGrpReadTimeArray(double* times, uint32_t* done, mdf_group* group,
                                       uint32_t first, uint32_t count);
/* Raw bytes of string, byte-array and other byte-aligned channels (mdfChnGetData), `width`
 * bytes per value in `buffer` (count * width bytes): the channel's bit count / 8 bytes, a
 * string up to and including its first zero byte, the rest of each slot zero. A width below
 * the channel's bit count / 8 gives -2011. */
KORVEL_API int16_t mdfChnReadBytesArray(uint8_t* buffer, uint32_t width, uint32_t* done,
                                        channelnode* channel, uint32_t first, uint32_t count);

/* Several channels at once, for callers that pay for every call (bindings to other
 * languages): each is the same as calling the one-channel function on each in turn.
 *
 * mdfGrpOpenChannels opens channels first .. first + count - 1 (1-based, as mdfChnOpen) of
 * the group into channels[0 .. count-1]; at the first channel that does not exist it stops
 * with 1002 (raised), that slot and the ones after it NULL, the handles before it open.
 *
 * mdfChnGetInfoArrays hands out mdfChnGetInfo's type, bit count and data type of each
 * channel into arrays of `count` (any may be NULL), and the short names into `names`,
 * 33 bytes a channel: the name up to its first zero byte (at most 32 characters), the rest
 * of the slot zero. A bad handle among them gives -1003 before anything is stored.
 *
 * mdfChnReadPhyArrays reads the physical values of `channel_count` channels of one group
 * (-2011 for channels of different groups) over the same records, channel i into
 * values[i * count .. i * count + count - 1], each as mdfChnReadPhyArray reads it. *done is
 * the number of values in each row. The status is that of the first channel whose status is
 * not 0 or 1, else 1 when the group ends before `count` values, else 0; a negative status
 * stops the reading (rows after that channel are not stored). */
KORVEL_API int16_t mdfGrpOpenChannels(channelnode** channels, mdf_group* group, uint16_t first,
                                      uint16_t count);
KORVEL_API int16_t mdfChnGetInfoArrays(uint16_t* types, uint16_t* bits, uint16_t* valueTypes,
                                       char* names, channelnode* const* channels, uint16_t count);
KORVEL_API int16_t mdfChnReadPhyArrays(double* values, uint32_t* done, channelnode* const* channels,
                                       uint16_t channel_count, uint32_t first, uint32_t count);

#ifdef __cplusplus
} /* extern "C" */
#endif

#if defined(__cplusplus) && __cplusplus >= 201103L
static_assert(sizeof(ce_info) == 128, "module record is 128 bytes");
static_assert(sizeof(MdfSortParams) == 56, "sort parameters are 56 bytes");
static_assert(offsetof(MdfSortParams, flags) == 52, "sort flags at offset 52");
#elif !defined(__cplusplus) && defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
_Static_assert(sizeof(ce_info) == 128, "module record is 128 bytes");
_Static_assert(sizeof(MdfSortParams) == 56, "sort parameters are 56 bytes");
_Static_assert(offsetof(MdfSortParams, flags) == 52, "sort flags at offset 52");
#else
/* C99 and C++98: a negative array size fails the build if a layout is off. */
typedef char korvel_check_ce_info[(sizeof(ce_info) == 128) ? 1 : -1];
typedef char korvel_check_sort_size[(sizeof(MdfSortParams) == 56) ? 1 : -1];
typedef char korvel_check_sort_flags[(offsetof(MdfSortParams, flags) == 52) ? 1 : -1];
#endif

#endif /* KORVEL_H */
