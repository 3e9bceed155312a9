/* Every public header compiles as C11 with warnings as errors, and a plain C
 * program can drive the interface. */
#include <stdio.h>
#include <string.h>

#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_types.h"
#include "yax_vono.h"

static int failures = 0;
#define CHECK(cond)                                                  \
    do {                                                             \
        if (!(cond)) {                                               \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
            failures++;                                              \
        }                                                            \
    } while (0)

static void count_problem(void *context, const char *kind, const char *message) {
    (void)kind;
    (void)message;
    ++*(int *)context;
}

int main(void) {
    YAXBUFFER *b = initYAXBuffer(16);
    CHECK(b != NULL);
    CHECK(getYAXBufferSize(b) == 16);
    CHECK(_qbwriteInt32(0x11223344u, b) == 4);
    CHECK(getYAXWriteSize(b) == 4);
    CHECK(memcmp(getYAXBuffer(b), "\x44\x33\x22\x11", 4) == 0);
    destroyYAXBuffer(b);

    /* a whole file in memory: one entry in, parsed back, written out */
    b = initYAXBuffer(256);
    static const unsigned char image[64] = {0xFF, 0xD8};
    CHECK(_qbwrite(image, sizeof image, b) == 64);
    CHECK(saveYAXDataToBuffer(b, "k", 1, NULL, 0, "v", 1, 1, 0) == 1);
    YAXDATA *yd = checkYAXInBuffer(b);
    CHECK(yd != NULL && yd->count == 1 && strcmp(yd->YAX_name_list[0], "k") == 0);
    destroyYAXDATA_Buffer(yd);
    FILE *out = tmpfile();
    CHECK(out != NULL && WriteHandle_Fp(b, out) == getYAXWriteSize(b));
    if (out != NULL) fclose(out);
    CHECK(WriteHandle_FilePath("no-such-dir/out.jpg", b) == -1);
    destroyYAXBuffer(b);

    CHECK(_setMetaType(3, 1) == 229376u);
    CHECK(getExtIndex("photo.jpg") == 5);
    CHECK(yaxGetSafeEdit() == 0); /* off until the caller sets it */
    yaxSetSafeEdit(1);
    CHECK(yaxGetSafeEdit() == 1);
    yaxSetSafeEdit(0);
    CHECK(yaxRecoverEdit("no-such-file.jpg") == 0);
    {
        /* a tail whose header lies before the file: one problem reported */
        static const unsigned char bad[] = {0xFF, 0xD8, 0, 0, 0, 0, 0, 0, 0x40, 0, 0, 0, 'Y', 'A', 'X', 'T'};
        const char *path = "c_interface_check.jpg";
        int seen = 0;
        FILE *f = fopen(path, "wb");
        CHECK(f != NULL && fwrite(bad, 1, sizeof bad, f) == sizeof bad);
        if (f != NULL) fclose(f);
        YaxCheckReport report = count_problem;
        CHECK(yaxCheckFile(path, report, &seen) == 1 && seen == 1);
        remove(path);
        CHECK(yaxCheckFile("no-such-file.jpg", NULL, NULL) == -1);
    }
    CHECK(YAX_STREAM_PAYLOAD == 0 && YAX_STREAM_SUB_INFO == 1);
    CHECK(yaxStreamYAXData(NULL, 0, YAX_STREAM_PAYLOAD, stdout) == -1);
    CHECK(yaxStreamYAXDataByName(NULL, "a", YAX_STREAM_SUB_INFO, stdout) == -1);
    /* the sound API from C: the stream record and the placeholders */
    {
        YAXAUDIOSTREAM *s = getAudioStreamBuffer(NULL, "a", 1);
        CHECK(s == NULL);
        destroyAudioStreamBuffer(s);
        destroyVONOOFFSET(NULL);
        CHECK(deleteTonePhotoDataFromFilebyIndex() == 0);
        CHECK(checkVonoInBuffer(NULL) == NULL);
        CHECK(copyTonePhotoData(NULL, "b.jpg") == 0 && copyVonoData("a.jpg", NULL) == 0);
        YaxEditGroup *g = yaxBeginEdit("no-such-file.jpg");
        CHECK(g != NULL && yaxEndEdit(g, 1) == 1 && yaxEndEdit(NULL, 1) == 0);
    }
    printf("%d passed, %d failed\n", failures == 0 ? 1 : 0, failures == 0 ? 0 : 1);
    return failures == 0 ? 0 : 1;
}
