/* Public file API: query, save, fast save, delete, and the same on a whole file held in a
 * buffer stream. Every record returned here is released by its own destroy function, which
 * accepts NULL. */
#ifndef YAX_API_H
#define YAX_API_H

#include <stdint.h>
#include <stdio.h>

#include "yax_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- query: the record keeps the file open until destroyed ---- */
YAX_EXPORT YAXDATA *checkYAXInFile(const char *path);     /* "r+b"; destroyYAXDATA */
YAX_EXPORT YAXDATA *checkYAXWithReadPM(const char *path); /* "rb"; destroyYAXDATA */
YAX_EXPORT YAXDATA *checkYAXInFP(FILE *fp);               /* destroyYAXDATA_FP */

/* positions: new records the caller frees with destroyYAXOFFSET / destroyYAXOFFSET64 */
YAX_EXPORT YAXOFFSET *getYAXInFileByName(YAXDATA *yaxdata, const char *name);
YAX_EXPORT YAXOFFSET *getYAXInFileByIndex(YAXDATA *yaxdata, uint32_t index);
YAX_EXPORT YAXOFFSET64 *getYAXInFileByName64(YAXDATA *yaxdata, const char *name);
YAX_EXPORT YAXOFFSET64 *getYAXInFileByIndex64(YAXDATA *yaxdata, uint32_t index);
YAX_EXPORT YAXOFFSET *getYAXSubInfoInFileByName(YAXDATA *yaxdata, const char *name);
YAX_EXPORT YAXOFFSET *getYAXSubInfoInFileByIndex(YAXDATA *yaxdata, uint32_t index);
YAX_EXPORT YAXOFFSET64 *getYAXSubInfoInFileByName64(YAXDATA *yaxdata, const char *name);
YAX_EXPORT YAXOFFSET64 *getYAXSubInfoInFileByIndex64(YAXDATA *yaxdata, uint32_t index);

/* data type of a name known to be present */
YAX_EXPORT uint32_t getYAXDataType(YAXDATA *yaxdata, const char *name);
/* new array of new strings; caller frees each and the array with _qfree */
YAX_EXPORT char **getNameListByDataType(YAXDATA *yaxdata, uint32_t data_type, uint32_t *count);
/* extracted copies; destroyYAXDATA_UNIT */
YAX_EXPORT YAXDATA_UNIT *extractYAXDataFromFilebyIndex(YAXDATA *yaxdata, uint32_t index);
YAX_EXPORT YAXDATA_UNIT *extractYAXDataFromFilebyName(YAXDATA *yaxdata, const char *name,
                                                      uint32_t name_length);
/* This library's own extension, beside the extraction above: streaming
 * extraction without a heap copy. Writes the payload (part
 * YAX_STREAM_PAYLOAD) or the sub-information (part YAX_STREAM_SUB_INFO) of
 * entry `index` (or of the first entry named `name`) of a record opened
 * from a file to `out`, at its descriptor's position (stdio's buffer of
 * `out` is flushed first), through one 256 KiB buffer. Returns the number of bytes written,
 * or -1 after a logged failure: no such entry or part, a part that lies
 * outside the file, or a read or write that failed (part of the bytes may
 * then have been written). */
#define YAX_STREAM_PAYLOAD 0
#define YAX_STREAM_SUB_INFO 1
YAX_EXPORT int64_t yaxStreamYAXData(YAXDATA *yaxdata, uint32_t index, int part, FILE *out);
YAX_EXPORT int64_t yaxStreamYAXDataByName(YAXDATA *yaxdata, const char *name, int part,
                                          FILE *out);
/* This library's own extension: several edits of one file as one. In the
 * safe-edit mode (yaxSetSafeEdit) yaxBeginEdit saves what any edit of `path`
 * may change, the edits made until yaxEndEdit are nested in it, and
 * yaxEndEdit(group, 0) (or a failed write on the way) puts the file back as
 * it was; yaxEndEdit(group, 1) keeps the edits and returns 1, or 0 when it
 * had to put the file back. In the default mode the group does nothing and
 * yaxEndEdit returns `result`. yaxBeginEdit gives NULL when the old bytes
 * cannot be saved (or memory is short): no edit should start. */
typedef struct YaxEditGroup YaxEditGroup;
YAX_EXPORT YaxEditGroup *yaxBeginEdit(const char *path);
YAX_EXPORT int yaxEndEdit(YaxEditGroup *group, int result);
YAX_EXPORT char *getYAXVersion(void); /* "105"; caller frees with _qfree */
YAX_EXPORT void printYAXVersion(void);

YAX_EXPORT void destroyYAXDATA(YAXDATA *yaxdata);    /* closes the file */
YAX_EXPORT void destroyYAXDATA_FP(YAXDATA *yaxdata); /* leaves the stream open */
YAX_EXPORT void destroyYAXDATA_UNIT(YAXDATA_UNIT *unit);
YAX_EXPORT void destroyYAXOFFSET(YAXOFFSET *record);
YAX_EXPORT void destroyYAXOFFSET64(YAXOFFSET64 *record);

/* ---- save: 1 on success, 0 on failure; bit 0 of option replaces a same-name entry ---- */
YAX_EXPORT int saveYAXDataToFile(const char *path, const char *name, uint32_t name_length,
                                 const void *sub_info, uint32_t sub_info_length, const void *data,
                                 uint32_t data_length, uint32_t data_type, int option);
YAX_EXPORT int saveYAXDataToFP(FILE *fp, const char *name, uint32_t name_length,
                               const void *sub_info, uint32_t sub_info_length, const void *data,
                               uint32_t data_length, uint32_t data_type, int option);
YAX_EXPORT int saveYAXFileDataToFile(const char *path, const char *name, uint32_t name_length,
                                     const void *sub_info, uint32_t sub_info_length,
                                     const char *payload_path, uint32_t data_type, int option);
YAX_EXPORT int saveYAXFileDataToFP(FILE *fp, const char *name, uint32_t name_length,
                                   const void *sub_info, uint32_t sub_info_length,
                                   const char *payload_path, uint32_t data_type, int option);
YAX_EXPORT int saveDirectYAXData(FILE *fp, const void *block, uint32_t block_length,
                                 const char *name, uint32_t has_sub_info, uint32_t data_type,
                                 int option);
/* writes a block's leading fields; returns their length (or 1 when nothing to do) */
YAX_EXPORT int saveYAXDataHeaderToFP(FILE *fp, const char *name, uint32_t name_length,
                                     const void *sub_info, uint32_t sub_info_length,
                                     uint32_t data_type);
YAX_EXPORT int saveYAXTailToFP(FILE *fp, uint32_t block_length, uint32_t data_type,
                               uint32_t has_sub_info);

/* ---- fast save: never moves bytes before the trailer ---- */
YAX_EXPORT int saveFastYAXDataToFP(FILE *fp, const char *name, uint32_t name_length,
                                   const void *sub_info, uint32_t sub_info_length,
                                   const void *data, uint32_t data_length, uint32_t data_type,
                                   int option);
YAX_EXPORT int saveFastYAXDataToFile(const char *path, const char *name, uint32_t name_length,
                                     const void *sub_info, uint32_t sub_info_length,
                                     const void *data, uint32_t data_length, uint32_t data_type,
                                     int option);
YAX_EXPORT int saveFastYAXNameToFP(FILE *fp, const char *name, uint32_t name_length,
                                   const void *sub_info, uint32_t sub_info_length,
                                   const char *payload_path, uint32_t data_type, int option);
YAX_EXPORT int saveFastYAXDataFileToFile(const char *path, const char *name, uint32_t name_length,
                                         const void *sub_info, uint32_t sub_info_length,
                                         const char *payload_path, uint32_t data_type,
                                         int option);

/* ---- save into an MP4 file (the trailer in a "yaxd" box): 1 on success, 0 on
 * failure; 1 without a change for a file whose ending is not classified, and
 * for a payload file that cannot be opened (both long-standing) ---- */
YAX_EXPORT int saveYAXDataToFPToMP4(FILE *fp, const char *name, uint32_t name_length,
                                    const void *sub_info, uint32_t sub_info_length,
                                    const void *data, uint32_t data_length, uint32_t data_type,
                                    int option);
YAX_EXPORT int saveYAXDataFileToFPToMP4(FILE *fp, const char *name, uint32_t name_length,
                                        const void *sub_info, uint32_t sub_info_length,
                                        const char *payload_path, uint32_t data_type,
                                        int option);

/* ---- a whole file held in a buffer stream ---- */
/* the query record of a buffer (no path); destroyYAXDATA_Buffer leaves the buffer alone */
YAX_EXPORT YAXDATA *checkYAXInBuffer(YAXBUFFER *buffer);
YAX_EXPORT void destroyYAXDATA_Buffer(YAXDATA *yaxdata);
/* adds (or, with bit 0 of option, replaces) one entry; buffers with legacy audio are refused */
YAX_EXPORT int saveYAXDataToBuffer(YAXBUFFER *buffer, const char *name, uint32_t name_length,
                                   const void *sub_info, uint32_t sub_info_length,
                                   const void *data, uint32_t data_length, uint32_t data_type,
                                   int option);
/* write the buffer's written bytes out; the byte count or -1. These two report
 * their failures on standard output, not through the log. WriteHandle_Fp
 * neither flushes nor closes the stream. */
YAX_EXPORT int WriteHandle_Fp(YAXBUFFER *buffer, FILE *fp);
YAX_EXPORT int WriteHandle_FilePath(const char *path, YAXBUFFER *buffer);

/* ---- delete ---- */
/* replaces *handle with a fresh record (or NULL) on success */
YAX_EXPORT int deleteYAXDataFromFilebyName(YAXDATA **handle, const char *name, int name_length);
YAX_EXPORT int deleteYAXDataFromFile(YAXDATA **handle);
YAX_EXPORT int deleteAllDataFromFile(const char *path);
YAX_EXPORT int deleteFastAllYAXData(const char *path);
YAX_EXPORT int deleteFastAllYAXDataFP(FILE *fp);
YAX_EXPORT int deleteFastAYAXData(const char *path, const char *name);
YAX_EXPORT int deleteYAXMultiDataFromFilebyName(YAXDATA **handle, const char **names,
                                                uint32_t count); /* always 1 */

#ifdef __cplusplus
}
#endif

#endif
