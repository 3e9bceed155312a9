/* Support layer: logging, memory and string helpers, file primitives with
 * explicit byte order, and the memory buffer stream. */
#ifndef YAX_SUPPORT_H
#define YAX_SUPPORT_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "yax_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- logging: console line on stdout, and the platform log ---- */
YAX_EXPORT void YAXLogD(const char *tag, const char *format, ...);
YAX_EXPORT void YAXLogI(const char *tag, const char *format, ...);
YAX_EXPORT void YAXLogE(const char *tag, const char *format, ...);

/* ---- memory: results are freed with _qfree ---- */
YAX_EXPORT void *_qmalloc(size_t size);                /* zero-filled, or NULL */
YAX_EXPORT void *_qcalloc(size_t count, size_t size);  /* zero-filled, or NULL */
YAX_EXPORT void _qfree(void *pointer);                 /* NULL is fine */
YAX_EXPORT void *_qmemcpy(void *destination, const void *source, size_t size);

/* ---- strings ---- */
YAX_EXPORT unsigned int getStringLen(const char *string);
YAX_EXPORT char *_qstrcpy(char *destination, const char *source);
YAX_EXPORT char *_qstrcat(char *destination, const char *source);
YAX_EXPORT int _qstrcmp(const char *a, const char *b);
YAX_EXPORT int getExtIndex(const char *string); /* last '.', or length - 1 */

/* ---- file primitives: data goes through the stream's descriptor ---- */
YAX_EXPORT FILE *_qfopen(const char *path, const char *mode);
YAX_EXPORT int _qfclose(FILE *stream);
YAX_EXPORT int _qfread(void *buffer, uint32_t length, FILE *stream);    /* n, 0 at end, -1 */
YAX_EXPORT int _qfreadInt16(uint16_t *out, FILE *stream);                /* little-endian */
YAX_EXPORT int _qfreadInt32(uint32_t *out, FILE *stream);                /* little-endian */
YAX_EXPORT int _qfwrite(const void *buffer, uint32_t length, FILE *stream); /* length or -1 */
YAX_EXPORT int _qfwriteInt16(uint16_t value, FILE *stream);
YAX_EXPORT int _qfwriteInt32(uint32_t value, FILE *stream);
YAX_EXPORT int _qfwriteInt32_endian(uint32_t value, FILE *stream);       /* big-endian */
YAX_EXPORT long _qftell(FILE *stream);
YAX_EXPORT int _qfseek(FILE *stream, long offset, int whence);
YAX_EXPORT int64_t _qlseek64(FILE *stream, int64_t offset, int whence); /* position or -1 */
YAX_EXPORT int _qremove(const char *path);
YAX_EXPORT int _qrename(const char *old_path, const char *new_path);
YAX_EXPORT int _qfilecopy(FILE *destination, FILE *source, int64_t count); /* 1, or 0 */

/* ---- memory buffer stream (never grows) ---- */
YAX_EXPORT YAXBUFFER *_qbopen(uint32_t size);                  /* owns its storage */
YAX_EXPORT YAXBUFFER *_qbsetbuffer(void *buffer, uint32_t size); /* wraps size + 1 bytes */
YAX_EXPORT void _qbclose(YAXBUFFER *handle);
YAX_EXPORT int _qbread(void *destination, uint32_t length, YAXBUFFER *handle); /* length or 0 */
YAX_EXPORT int _qbreadInt16(uint16_t *out, YAXBUFFER *handle);
YAX_EXPORT int _qbreadInt32(uint32_t *out, YAXBUFFER *handle);
YAX_EXPORT int _qbwrite(const void *source, uint32_t length, YAXBUFFER *handle); /* length or 0 */
YAX_EXPORT int _qbwriteInt16(uint16_t value, YAXBUFFER *handle);
YAX_EXPORT int _qbwriteInt32(uint32_t value, YAXBUFFER *handle);
YAX_EXPORT int _qbwriteInt32_endian(uint32_t value, YAXBUFFER *handle);
YAX_EXPORT int32_t _qbtell(YAXBUFFER *handle);
YAX_EXPORT int64_t _qbseek(YAXBUFFER *handle, int64_t offset, int whence); /* position or -1 */
YAX_EXPORT int btruncate(YAXBUFFER *handle, int64_t new_size);            /* 0 or -1 */
YAX_EXPORT unsigned char *qbgetBuffer(YAXBUFFER *handle);
YAX_EXPORT uint32_t qbgetBufferSize(YAXBUFFER *handle); /* all ones for NULL */
YAX_EXPORT int32_t qbgetWriteSize(YAXBUFFER *handle);   /* -1 for NULL */

/* public names of the buffer stream; destroyYAXBuffer frees the handle */
YAX_EXPORT YAXBUFFER *initYAXBuffer(uint32_t size);
YAX_EXPORT YAXBUFFER *initYAXAllocatedBuffer(void *buffer, uint32_t size);
YAX_EXPORT void destroyYAXBuffer(YAXBUFFER *handle);
YAX_EXPORT unsigned char *getYAXBuffer(YAXBUFFER *handle);
YAX_EXPORT uint32_t getYAXBufferSize(YAXBUFFER *handle);
YAX_EXPORT int32_t getYAXWriteSize(YAXBUFFER *handle);

/* ---- safe-edit mode: this library's own extension, not part of the format's
 * interface. One process-wide switch, off by default; the caller sets it.
 *
 * Always on, whatever the switch says (no documented result or log line
 * changes): an edited file is flushed to the disk (fsync) before the edit
 * returns, a rewritten file keeps the original's mode, owner (where
 * permitted) and extended attributes, and the folder is flushed after the
 * temporary file took the file's place. Appending and in-place edits of a
 * file order their writes so that an interruption rarely costs an entry the
 * edit did not target: an add whose block is at least as long as the old
 * header and tail writes the new header and tail first, beyond the old end
 * (flushed), then the block over the old header; every header, table or run
 * of moved blocks goes out in one write instead of one per field. The final
 * bytes are those of the documented steps; when the one write fails, the
 * file is put back and the documented steps run, with their own messages.
 *
 * With the switch on:
 *  - rewriting edits (the deletes that rebuild a file, the legacy audio edits)
 *    write a temporary file beside the real target (symlinks resolved), named
 *    ".<base name>.XXXXXX" by mkstemp, check every write and the close, and
 *    on any failure remove it, leave the file untouched and return 0 (also
 *    where the default mode documents 1 for a temporary file that cannot be
 *    opened); the finished file is renamed over the target, never removed
 *    first, and the folder is flushed; a file with several hard links is
 *    written over in place instead (from the first byte that changes, under
 *    the undo file described next), so that all its names see the edit;
 *  - appending and in-place edits (adds, fast adds, in-place and fast deletes
 *    of a file) first save the bytes they will change and the file's length
 *    in ".<base name>.yaxundo" beside the target (flushed); any failed write
 *    or flush puts them back and the edit returns 0, also where the default
 *    mode documents 1 with unchecked writes. An undo file left by an
 *    interruption blocks further edits of that file until yaxRecoverEdit
 *    has put the old bytes back.
 * Buffer flavours work in memory and are not affected. */
YAX_EXPORT void yaxSetSafeEdit(int on);
YAX_EXPORT int yaxGetSafeEdit(void); /* 1 or 0 */
/* Puts back an appending or in-place edit of `path` that was interrupted in
 * the safe-edit mode: 1 when the old bytes were restored, 0 when there was
 * nothing to do (an undo file cut short is removed: the file was not touched
 * yet), -1 when it could not be done (the undo file stays). */
YAX_EXPORT int yaxRecoverEdit(const char *path);

#ifdef __cplusplus
}
#endif

#endif
