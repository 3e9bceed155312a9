/* Records shared by every subsystem of libYAX. Field order is part of the
 * interface: callers and the Java binding rely on it. Every record is
 * allocated zeroed by the library and released by its own destroy function. */
#ifndef YAX_TYPES_H
#define YAX_TYPES_H

#include <stdint.h>
#include <stdio.h>

#include "yax_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Signature codes of getSignature* (0 means the file could not be read). */
#define SIGNATURE_NONE 1
#define SIGNATURE_VONO 2
#define SIGNATURE_YAX 3
#define SIGNATURE_VONO_YAX 4

/* Data type 0 must carry sub-information. */
#define YAX_USER_DEFINED_DATA 0
/* Data type of the "Invalid_Data" filler entry. */
#define YAX_INVALID_DATA_TYPE 32766
/* Data types of the TonePhoto sound entries and their name list. */
#define YAX_TONEPHOTO_SOUND_TYPE 256
#define YAX_TONEPHOTO_META_TYPE 2048

/* The format version this library writes and reports. */
#define YAX_VERSION 105

/* A fixed-capacity memory stream that behaves like a file. */
typedef struct YAXBUFFER {
    unsigned char *buffer; /* storage, buffer_size + 1 bytes ("Q" marker last) */
    uint32_t buffer_size;  /* capacity */
    int32_t write_size;    /* highest position ever reached by a write */
    int32_t position;      /* current position */
    uint32_t owns_buffer;  /* 1: freed by _qbclose */
} YAXBUFFER;

/* One row of the trailer's table and what has been read of its block. */
typedef struct YaxEntry {
    uint32_t offset;          /* distance from the header start back to the block */
    uint32_t length;          /* whole block length */
    uint32_t meta_type;       /* data type << 16, bit 15 = has sub-information */
    uint32_t has_sub_info;    /* bit 15 of meta_type */
    uint32_t sub_info_length; /* read with the name */
    char *name;               /* zero-terminated copy of the key name, or NULL */
    uint32_t name_length;
    unsigned char *data;      /* payload copy (only _generateYAXData fills it) */
    uint32_t data_length;
} YaxEntry;

/* One parsed trailer. */
typedef struct YaxInfo {
    uint32_t valid;              /* 1 after a successful parse */
    int64_t file_size;           /* file size, or buffer write size, at parse time */
    int64_t data_start_position; /* where the trailer (or its MP4 box) begins */
    FILE *fp;                    /* file flavours */
    YAXBUFFER *handle;           /* buffer flavour */
    uint32_t header_offset;      /* from the header's first byte to the end of file */
    uint32_t version;
    uint32_t meta_count;
    uint32_t cur_index;
    YaxEntry **meta_data;        /* meta_count rows, in table order */
} YaxInfo;

/* A parsed legacy audio (Vono) block. */
typedef struct VonoInfo {
    uint32_t valid;
    uint32_t file_size;
    uint32_t header_size;  /* 12 + 8 x count, as read from the tail */
    uint32_t version;
    uint32_t count;        /* number of sounds, filled by ParseVonoSound */
    uint32_t sound_moved;  /* 1: the sound lies behind the entry being deleted */
    uint32_t block_length; /* 22 + 8 x count */
    FILE *fp;
    YAXBUFFER *buffer;
    uint32_t *offsets;     /* 2 x count words: start1, end1, start2, ... */
} VonoInfo;
typedef VonoInfo VONODATA;

typedef struct VONOOFFSET {
    uint32_t offset;
    uint32_t length;
} VONOOFFSET;

/* The public query record. */
typedef struct YAXDATA {
    uint32_t type;              /* 1 for records made by the check functions */
    YaxInfo *yax_info;          /* owns the stream */
    uint32_t count;             /* number of entries */
    char **YAX_name_list;       /* count names, owned by this record */
    uint32_t tonephoto_count;   /* names of the TonePhoto list */
    char **tonephoto_name_list;
    char *filename;             /* copy of the path, or NULL */
    uint32_t filename_size;     /* strlen(filename) + 1 */
} YAXDATA;

typedef struct YAXOFFSET {
    uint32_t offset;
    uint32_t length;
} YAXOFFSET;

typedef struct YAXOFFSET64 {
    int64_t offset;
    int64_t length;
} YAXOFFSET64;

/* One extracted entry. */
typedef struct YAXDATA_UNIT {
    unsigned char *sub_info;
    uint32_t sub_info_length;
    unsigned char *data;
    uint32_t data_length;
    uint32_t data_type;
} YAXDATA_UNIT;

#ifdef __cplusplus
}
#endif

#endif
