/* The YAX trailer: detection, parsing, entry reading, field writers, adds
 * and deletes. Records returned here are released with DestroyYAX*. */
#ifndef YAX_CONTAINER_H
#define YAX_CONTAINER_H

#include <stdint.h>
#include <stdio.h>

#include "yax_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- layout and detection ---- */
YAX_EXPORT int getSignature(const char *path);                /* SIGNATURE_* or 0 */
YAX_EXPORT unsigned int getSignatureFP(FILE *fp);
YAX_EXPORT unsigned int getSignatureBuffer(YAXBUFFER *handle);
YAX_EXPORT uint32_t _setMetaType(uint32_t type, uint32_t has_sub_info);
YAX_EXPORT uint32_t _getDataType(uint32_t meta_type);
YAX_EXPORT uint32_t _getDataLength(uint32_t has_sub_info, uint32_t name_length,
                                   uint32_t sub_info_length, uint32_t payload_length);

/* ---- parsing: ParseYAX* then getYAXList* directly after ---- */
YAX_EXPORT YaxInfo *ParseYAX(const char *path, int signature); /* record owns the stream */
YAX_EXPORT YaxInfo *ParseYAX_FP(FILE *fp, int signature);      /* stream stays the caller's */
YAX_EXPORT YaxInfo *ParseYAX_Buffer(YAXBUFFER *handle, int signature);
YAX_EXPORT int getYAXList(YaxInfo *info);
YAX_EXPORT int getYAXListBuffer(YaxInfo *info);
YAX_EXPORT int checkSignatureMP4Tag(YaxInfo *info);       /* 1 when "yaxd" precedes block 0 */
YAX_EXPORT int checkSignatureMP4TagBuffer(YaxInfo *info);

/* ---- the MP4 box "yaxd" around a trailer: 1 on success, 0 on failure ---- */
YAX_EXPORT int checkMP4Fp(FILE *fp); /* 1 when bytes 4-7 are "ftyp" (stream back at 0) */
/* at the end of the file: size (big-endian, counting the 8-byte box head), "yaxd" */
YAX_EXPORT int writeFirstMP4Tag(FILE *fp, uint32_t size);
/* puts a box around the parsed trailer that just grew by a block of `added`
 * bytes and a row; the size stored is 8 less than the box (kept as it was) */
YAX_EXPORT int writeMP4Tag(YaxInfo *info, uint32_t added);
/* stores file_size - data_start_position as the box size */
YAX_EXPORT int updateMP4Tag(YaxInfo *info);
YAX_EXPORT int DestroyYAX(YaxInfo *info);        /* closes the stream */
YAX_EXPORT int DestroyYAX_FP(YaxInfo *info);     /* leaves the stream open */
YAX_EXPORT int DestroyYAX_Buffer(YaxInfo *info); /* leaves the buffer stream alone */
YAX_EXPORT int _addData(YaxInfo *info, uint32_t offset, uint32_t length, uint32_t meta_type);
YAX_EXPORT int _addDataBuffer(YaxInfo *info, uint32_t offset, uint32_t length, uint32_t meta_type);
YAX_EXPORT void _destroyYAXDataList(YaxInfo *info);
YAX_EXPORT void _destroyYAXData(YaxEntry *entry);

/* ---- entry reading ---- */
YAX_EXPORT int _getNameOfData(YaxInfo *info, uint32_t index);
YAX_EXPORT int _getNameOfDataBuffer(YaxInfo *info, uint32_t index);
YAX_EXPORT int getAllNameOfDataList(YaxInfo *info);
YAX_EXPORT int getAllNameOfDataListBuffer(YaxInfo *info);
YAX_EXPORT int readSubDataInfoOfDataOffset(YaxInfo *info, uint32_t index, int64_t *position,
                                           int64_t *length);
YAX_EXPORT int readDataOfIndexOffset(YaxInfo *info, uint32_t index, int64_t *position,
                                     int64_t *length);
/* *data / *sub_info receive buffers the caller frees with _qfree; either may be NULL */
YAX_EXPORT int readDataOfIndex(YaxInfo *info, uint32_t index, unsigned char **data,
                               unsigned char **sub_info);
YAX_EXPORT uint32_t _getIndexOfName(YAXDATA *yaxdata, const char *name); /* index or -1 */

/* ---- field writers: bytes written (4 for a word) or the primitive's failure ---- */
YAX_EXPORT int _writeYAX_MP4S(FILE *fp);
YAX_EXPORT int _writeYAX_MP4S_Buffer(YAXBUFFER *buf);
YAX_EXPORT int _writeYAX_TOTALSIZE(FILE *fp, uint32_t size);
YAX_EXPORT int _writeYAX_TOTALSIZE_Buffer(YAXBUFFER *buf, uint32_t size);
YAX_EXPORT int _writeYAX_QTSS(FILE *fp);
YAX_EXPORT int _writeYAX_QTSS_Buffer(YAXBUFFER *buf);
YAX_EXPORT int _writeYAX_QVER(FILE *fp);
YAX_EXPORT int _writeYAX_QVER_Buffer(YAXBUFFER *buf);
YAX_EXPORT int _writeYAX_QCnt(FILE *fp, uint32_t count);
YAX_EXPORT int _writeYAX_QCnt_Buffer(YAXBUFFER *buf, uint32_t count);
YAX_EXPORT int _writeYAX_QDR(FILE *fp, YaxEntry *entry);         /* always 1 */
YAX_EXPORT int _writeYAX_QDR_Buffer(YAXBUFFER *buf, YaxEntry *entry); /* always 1 */
YAX_EXPORT int _writeYAX_QTHO(FILE *fp, uint32_t count);
YAX_EXPORT int _writeYAX_QTHO_Buffer(YAXBUFFER *buf, uint32_t count);
YAX_EXPORT uint32_t _calculateYAX_QTHO(uint32_t count);
YAX_EXPORT int _writeYAX_QTS(FILE *fp);
YAX_EXPORT int _writeYAX_QTS_Buffer(YAXBUFFER *buf);

/* ---- block and header writers ---- */
YAX_EXPORT int _writeDataTagInfo(FILE *fp, uint32_t data_type, uint32_t has_sub_info,
                                 const char *name, uint32_t name_length, const void *sub_info,
                                 uint32_t sub_info_length);
YAX_EXPORT int _writeDataTagInfoBuffer(YAXBUFFER *buf, uint32_t data_type, uint32_t has_sub_info,
                                       const char *name, uint32_t name_length,
                                       const void *sub_info, uint32_t sub_info_length);
YAX_EXPORT int writeYAXData(FILE *fp, uint32_t data_type, uint32_t has_sub_info, const char *name,
                            uint32_t name_length, const void *sub_info, uint32_t sub_info_length,
                            const void *data, uint32_t data_length);
YAX_EXPORT int _writeDataHeaderInfo(FILE *fp, uint32_t a, uint32_t b, uint32_t c);
YAX_EXPORT int _writeDataHeaderInfo_Buffer(YAXBUFFER *buf, uint32_t a, uint32_t b, uint32_t c);
YAX_EXPORT int _writeYAXHeader(YaxInfo *info);
YAX_EXPORT int _writeYAXHeaderBuffer(YaxInfo *info);
YAX_EXPORT int writeYAXHeader(YaxInfo *info, uint32_t count, int replace_first,
                              uint32_t first_offset, uint32_t first_length, uint32_t new_offset,
                              uint32_t new_length, uint32_t new_type, uint32_t has_sub_info);
YAX_EXPORT int writeDummyYAXHeader(YaxInfo *info, uint32_t data_type, uint32_t has_sub_info);
YAX_EXPORT void writeDummyYAXData(FILE *fp, uint32_t size);
/* headers after a cover replacement, written at the stream's position */
YAX_EXPORT int FastCSamllCopyHeaderUpdate(YaxInfo *info, uint32_t count, uint32_t offset,
                                          uint32_t length, int skip_first);
YAX_EXPORT int FastCBigCopyHeaderUpdate(YaxInfo *info, uint32_t count, uint32_t offset,
                                        uint32_t length, uint32_t which, uint32_t last);
YAX_EXPORT void writeDummyYAXDataHeader(FILE *fp, uint32_t size, uint32_t has_sub_info);
YAX_EXPORT YaxInfo *_generateYAXHeader(FILE *fp);
YAX_EXPORT YaxEntry *_generateYAXData(const void *data, uint32_t length, uint32_t data_type,
                                      uint32_t has_sub_info);

/* ---- adds: 1 on success, 0 on failure ---- */
YAX_EXPORT int AddYAXDataInFirstTime(const char *path, const char *name, uint32_t name_length,
                                     uint32_t data_type, const void *sub_info,
                                     uint32_t sub_info_length, const void *data,
                                     uint32_t data_length);
YAX_EXPORT int AddYAXDataInFirstTimeFP(FILE *fp, const char *name, uint32_t name_length,
                                       uint32_t data_type, const void *sub_info,
                                       uint32_t sub_info_length, const void *data,
                                       uint32_t data_length);
YAX_EXPORT int AddYAXDataInFirstTimeBuffer(YAXBUFFER *handle, const char *name,
                                           uint32_t name_length, uint32_t data_type,
                                           const void *sub_info, uint32_t sub_info_length,
                                           const void *data, uint32_t data_length);
YAX_EXPORT int AddYAXData(const char *path, YaxInfo *info, const char *name, uint32_t name_length,
                          uint32_t data_type, const void *sub_info, uint32_t sub_info_length,
                          const void *data, uint32_t data_length, VonoInfo *vono);
YAX_EXPORT int AddYAXDataFP(FILE *fp, YaxInfo *info, const char *name, uint32_t name_length,
                            uint32_t data_type, const void *sub_info, uint32_t sub_info_length,
                            const void *data, uint32_t data_length, VonoInfo *vono);
YAX_EXPORT int AddYAXDataBuffer(YAXBUFFER *handle, YaxInfo *info, const char *name,
                                uint32_t name_length, uint32_t data_type, const void *sub_info,
                                uint32_t sub_info_length, const void *data, uint32_t data_length,
                                VonoInfo *vono);
YAX_EXPORT int AddDirectYAXDataInFirstTimeFP(FILE *fp, uint32_t data_type, uint32_t has_sub_info,
                                             const void *block, uint32_t block_length);
YAX_EXPORT int AddDirectYAXDataFP(FILE *fp, YaxInfo *info, uint32_t data_type,
                                  uint32_t has_sub_info, const void *block, uint32_t block_length,
                                  VonoInfo *vono);
YAX_EXPORT int saveFirstYAXTailToFP(FILE *fp, uint32_t block_length, uint32_t data_type,
                                    uint32_t has_sub_info);
YAX_EXPORT int FastAddYAXData(YaxInfo *info, const char *name, uint32_t name_length,
                              uint32_t data_type, const void *sub_info, uint32_t sub_info_length,
                              const void *data, uint32_t data_length, int reuse_first);
YAX_EXPORT int checkYAXInfoForSaving(YaxInfo *info, uint32_t data_length,
                                     uint32_t sub_info_length, uint32_t name_length);
YAX_EXPORT char *_getTempFileName(const char *path); /* caller frees with _qfree */

/* ---- deletes: 1 on success, 0 on failure ---- */
YAX_EXPORT int DeleteAllData(const char *path, YaxInfo *info);
YAX_EXPORT int DeleteAllYAXData(const char *path, YaxInfo *info);
YAX_EXPORT int DeleteAllYAXDataFP(FILE *fp, YaxInfo *info);
YAX_EXPORT int DeleteAllYAXDataBuffer(YAXBUFFER *handle, YaxInfo *info);
YAX_EXPORT int DeleteAYAXData(const char *path, YaxInfo *info, uint32_t index, VonoInfo *vono);
YAX_EXPORT int DeleteAYAXDataFP(FILE *fp, YaxInfo *info, uint32_t index, VonoInfo *vono);
YAX_EXPORT int DeleteAYAXDataBuffer(YAXBUFFER *handle, YaxInfo *info, uint32_t index,
                                    VonoInfo *vono);
YAX_EXPORT int DeleteMultiYAXData(const char *path, YaxInfo *info, uint32_t *indices,
                                  uint32_t count);
YAX_EXPORT int FastDeleteAllData(YaxInfo *info);
YAX_EXPORT int FastDeleteAllYAXData(YaxInfo *info);
YAX_EXPORT int FastDeleteAYAXData(YaxInfo *info, uint32_t index, VonoInfo *vono, int no_pad);

/* ---- this library's own extension: a consistency report ----
 * Lists every inconsistency found at the end of the file at `path` without
 * changing it: a tail or header that does not fit, table rows that point
 * outside the file, blocks that overlap each other, the header or the image
 * or leave gaps, unreadable and duplicate names, a filler that is not row 0,
 * stale bytes between the last row and the tail, a legacy audio block or an
 * MP4 box whose sizes disagree with the file. Each problem is handed to
 * `report` (may be NULL) as a short kind ("gap", "stale", ...) and one line
 * of text. Returns the number of problems, or -1 when the file cannot be
 * opened. The edits make the checks they rely on themselves. */
typedef void (*YaxCheckReport)(void *context, const char *kind, const char *message);
YAX_EXPORT int yaxCheckFile(const char *path, YaxCheckReport report, void *context);

#ifdef __cplusplus
}
#endif

#endif
