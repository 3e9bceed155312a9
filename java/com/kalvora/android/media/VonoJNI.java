package com.kalvora.android.media;

/**
 * The legacy sound block behind an image, reached through libYAX. Every
 * method is static. A length argument larger than its array is refused with 0.
 */
public final class VonoJNI {
    static { System.loadLibrary("YAX"); }

    private VonoJNI() {}

    /** Returns 105, the version written into every sound block. */
    public static native int getNativeVersion();

    /** Returns 1 when the file holds a valid sound block, else 0. */
    public static native int isVonoFile(String path);

    /** Copies the first sound of src into dst (only when dst has none); always 1. */
    public static native int copyAdioData(String src, String dst);

    /** Returns the sound table {start1, end1, start2, ...}, or null without sound block. */
    public static native int[] ParseVonoFile(String path);

    /** Returns 2 x N longs, pair i packed as end << 32 | start in the first N; null without sound block. */
    public static native long[] ParseVonoFile64(String path);

    /** Adds (or replaces) the sound; the first add returns the new file size, -1 after a failure, 0 when it cannot open. */
    public static native int AddSoundInVonoFile(String path, byte[] data, int length);

    /** Deletes the sound; 1 when one was deleted, else 0. */
    public static native int DeleteVonoFromFile(String path);
}
