/* Legacy audio-in-image (Vono) block: parsing, editing, and its TonePhoto
 * entries inside the trailer. */
#ifndef YAX_VONO_H
#define YAX_VONO_H

#include <stdint.h>
#include <stdio.h>

#include "yax_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- parsing: Parse* then ParseVonoSound* directly after ---- */
YAX_EXPORT VonoInfo *ParseVono(const char *path); /* DestroyVono closes the file */
YAX_EXPORT VonoInfo *ParseVonoFP(FILE *fp);       /* DestroyVonoFP */
YAX_EXPORT VonoInfo *ParseVonoBuffer(YAXBUFFER *buffer); /* DestroyVonoBuffer */
YAX_EXPORT int ParseVonoSound(VonoInfo *info);
YAX_EXPORT int ParseVonoSoundBufferApi(VonoInfo *info);
YAX_EXPORT int ReadSoundData(FILE *fp, uint32_t start, uint32_t length, void *dest);
YAX_EXPORT int ReadSoundDataBufferApi(YAXBUFFER *buffer, uint32_t start, uint32_t length,
                                      void *dest);
YAX_EXPORT int DestroyVono(VonoInfo *info);
YAX_EXPORT int DestroyVonoFP(VonoInfo *info);
YAX_EXPORT int DestroyVonoBuffer(VonoInfo *info);
YAX_EXPORT int _destroyVONODATA(VonoInfo *info);
/* fully parsed records, or NULL */
YAX_EXPORT VonoInfo *_checkAudioInImageFile(const char *path);
YAX_EXPORT VonoInfo *_checkAudioInImageFP(FILE *fp);
YAX_EXPORT VonoInfo *_checkAudioInImageBuffer(YAXBUFFER *buffer);
YAX_EXPORT uint32_t _getAudioCountInImageFile(VonoInfo *info);
YAX_EXPORT VONOOFFSET *_getAudioInImageFile(VonoInfo *info); /* _destroyVONOOFFSET */
YAX_EXPORT void _destroyVONOOFFSET(VONOOFFSET *p);

/* ---- layout writers ---- */
YAX_EXPORT int WriteSoundHeader(FILE *fp);
YAX_EXPORT int WriteSoundCount(FILE *fp, uint32_t n);
YAX_EXPORT int WriteSoundDataBuffer(FILE *fp, const uint32_t *table, uint32_t n);
YAX_EXPORT int WriteSoundData(FILE *fp, uint32_t start, uint32_t end);
YAX_EXPORT int WriteSoundTailer(FILE *fp, uint32_t n);
YAX_EXPORT int WriteSoundHeaderBufferApi(YAXBUFFER *buffer);
YAX_EXPORT int WriteSoundCountBufferApi(YAXBUFFER *buffer, uint32_t n);
YAX_EXPORT int WriteSoundDataBufferBufferApi(YAXBUFFER *buffer, const uint32_t *table, uint32_t n);
YAX_EXPORT int WriteSoundDataBufferApi(YAXBUFFER *buffer, uint32_t start, uint32_t end);
YAX_EXPORT int WriteSoundTailerBufferApi(YAXBUFFER *buffer, uint32_t n);

/* ---- legacy add and delete ---- */
YAX_EXPORT int64_t AddVonoSoundInFirstTime(const char *path, const void *data, uint32_t length);
YAX_EXPORT int checkVonoInfoForSaving(VonoInfo *info, uint32_t size1, uint32_t size2,
                                      uint32_t size3);
YAX_EXPORT int addVonoSound(const char *path, VonoInfo *info, const void *data, uint32_t length);
YAX_EXPORT int deleteAVono(const char *path);
YAX_EXPORT int hasYAXData(const char *path, VonoInfo *info); /* 2, 1, or 0 */
YAX_EXPORT int deleteVono_ExistYAX(const char *path, VonoInfo *info);
YAX_EXPORT int deleteVono_NotExistYAX(const char *path, VonoInfo *info);
YAX_EXPORT int deleteVono_NotExistYAX_FP(FILE *fp, VonoInfo *info);
YAX_EXPORT char *_getVonoTempFileName(const char *path); /* caller frees with _qfree */
YAX_EXPORT int _getSoundFileCreate(VonoInfo *info, const char *out_path);
YAX_EXPORT unsigned char *_getAudioStreamBuffer(VonoInfo *info); /* caller frees */
YAX_EXPORT int _copyAudioData(const char *src_path, const char *dst_path);
YAX_EXPORT int _writeVonoOffset(const char *path);

/* ---- Vono records inside the trailer (TonePhoto entries) ---- */
YAX_EXPORT uint32_t makeFirstVonoHeader(unsigned char *out, const char *name, uint32_t name_len);
YAX_EXPORT uint32_t makeSecondVonoHeader(unsigned char *out, const char *name1, uint32_t len1,
                                         const char *name2, uint32_t len2);
YAX_EXPORT uint32_t makeAddVonoHeader(unsigned char *out, YaxInfo *info, uint32_t index,
                                      uint32_t ignored, const char *name, uint32_t name_len);
YAX_EXPORT uint32_t makeMinusVonoHeader(unsigned char *out, YaxInfo *info, uint32_t index,
                                        uint32_t ignored, const char *name);
YAX_EXPORT uint32_t getVonoHeaderCount(const unsigned char *payload);
YAX_EXPORT void writeVonoDataHeader(FILE *fp, VonoInfo *info);
YAX_EXPORT int _writeVonoHeader(FILE *fp, uint32_t start, uint32_t end);
YAX_EXPORT int _writeVonoHeaderBuffer(YAXBUFFER *buf, uint32_t start, uint32_t end);
YAX_EXPORT int NewAddVonoDataInFirstTime(const char *path, uint32_t meta_type, uint32_t sound_type,
                                         const char *name, uint32_t name_len, const void *data,
                                         uint32_t data_len, const void *meta, uint32_t meta_len);
YAX_EXPORT int NewAddVonoDataInFirstTimeFP(FILE *fp, uint32_t meta_type, uint32_t sound_type,
                                           const char *name, uint32_t name_len, const void *data,
                                           uint32_t data_len, const void *meta, uint32_t meta_len);
YAX_EXPORT int NewAddVonoData(YaxInfo *info, uint32_t meta_type, uint32_t sound_type,
                              const char *name, uint32_t name_len, const void *data,
                              uint32_t data_len, const void *meta, uint32_t meta_len);
YAX_EXPORT int writeCustomQDR(YaxInfo *info, uint32_t first, uint32_t from, uint32_t add,
                              uint32_t sub);
YAX_EXPORT int convertVonoToTonePhoto(VonoInfo **pinfo, const char *path);
YAX_EXPORT int _convertVonoToTonePhoto(VonoInfo **pinfo);

/* ---- TonePhoto name list ---- */
YAX_EXPORT int getTonePhotoInFile(YAXDATA *yaxdata); /* 1 filled, 0 empty, -1 no list */
/* *names_out: new array of new strings (free each and the array with _qfree) */
YAX_EXPORT int getTonePhotoNameList(YAXDATA *yaxdata, char ***names_out, uint32_t *count_out);
YAX_EXPORT int getTonePhotoNameByIndex(YAXDATA_UNIT *meta, char **name_out, uint32_t index);
YAX_EXPORT int getVonoCntInFile(YAXDATA *yaxdata); /* N, or -1 without a list */
YAX_EXPORT int isVonoMetaInfo(YAXDATA *yaxdata);
YAX_EXPORT int isIdenticalNameInMetaInfo(YAXDATA_UNIT *meta, const char *name);
YAX_EXPORT YAXOFFSET *getVonoInFile(YAXDATA *yaxdata, const char *name);

/* ---- the sound API ----
 * Sounds kept with a photo: the legacy block, TonePhoto entries (type 256)
 * with their name list "TonePhoto_Meta_Info" (type 2048), or both. Results
 * are 1/0 unless said. In the safe-edit mode (yaxSetSafeEdit) an edit made
 * of several steps is one edit: a failed step puts the whole file back. */

/* A named sound fetched from a parsed trailer: its data length and the
 * extracted entry. destroyAudioStreamBuffer (this library's own addition)
 * frees it. */
typedef struct YAXAUDIOSTREAM {
    uint32_t length;
    YAXDATA_UNIT *unit; /* NULL when the name is not stored */
} YAXAUDIOSTREAM;

/* 1 also for a file whose ending cannot be read (nothing is done). A legacy
 * sound becomes "TonePhoto_000" beside the new one. */
YAX_EXPORT int saveVonoToImageFile(const char *path, const void *data, uint32_t data_len,
                                   const char *name, uint32_t name_len);
/* The name list always loses its last name, whichever sound is deleted. */
YAX_EXPORT int deleteVonoFromImageFile(const char *path, const char *name);
/* 0 for a plain image, legacy audio alone or a trailer alone; otherwise the
 * bare image is left: every other entry goes with the sounds. */
YAX_EXPORT int deleteAllVonoFromImageFile(const char *path);
/* n: the number of sounds; sets the legacy record's sound_moved. */
YAX_EXPORT int deleteTonePhotoDataFromFilebyName(YAXDATA **handle, const char *name,
                                                 uint32_t name_len, uint32_t n);
YAX_EXPORT int deleteTonePhotoDataFromFilebyIndex(void); /* always 0 */
YAX_EXPORT int deleteATonePhotoData(const char *path, YaxInfo *info, uint32_t index,
                                    VonoInfo *vono, uint32_t n);
YAX_EXPORT int DeleteAllTonePhotoData(const char *path, YaxInfo *info);
/* accepted, completed records (DestroyVono / DestroyVonoFP), or NULL (a
 * record that is not accepted is not freed); checkVonoInBuffer always gives
 * NULL */
YAX_EXPORT VonoInfo *checkVonoInFile(const char *path);
YAX_EXPORT VonoInfo *checkVonoInFP(FILE *fp);
YAX_EXPORT VonoInfo *checkVonoInBuffer(YAXBUFFER *buffer);
/* NULL only for a NULL record */
YAX_EXPORT YAXAUDIOSTREAM *getAudioStreamBuffer(YAXDATA *info, const char *name,
                                                uint32_t name_len);
YAX_EXPORT void destroyAudioStreamBuffer(YAXAUDIOSTREAM *stream);
/* Appends the source's listed sounds and list behind the destination as a
 * new trailer with a legacy record on the first sound. */
YAX_EXPORT int copyTonePhotoData(const char *src_path, const char *dst_path);
/* Saves each listed sound of the source into the destination; a source or
 * destination holding legacy audio alone is converted in place first. */
YAX_EXPORT int copyVonoData(const char *src_path, const char *dst_path);
YAX_EXPORT void destroyVONOOFFSET(VONOOFFSET *p);

#ifdef __cplusplus
}
#endif

#endif
