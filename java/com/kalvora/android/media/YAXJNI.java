package com.kalvora.android.media;

/**
 * Named data entries kept in a trailer behind a JPEG (or in an MP4 box), and
 * the legacy sound block, reached through libYAX. Every method is static; ints
 * are 1 for success and 0 for failure unless said otherwise. A length argument
 * larger than its array is refused with the failure result.
 */
public final class YAXJNI {
    static { System.loadLibrary("YAX"); }

    private YAXJNI() {}

    /** Returns the trailer version the library writes, 105. */
    public static native int getNativeVersion();

    /** Returns 1 when the file holds a trailer (with or without a legacy sound), else 0. */
    public static native int isYAXFile(String path);

    /** Copies the first legacy sound of src into dst (only when dst has none); always 1. */
    public static native int copyAdioData(String src, String dst);

    /** Copies every entry of src into dst; 1 on success, 0 on failure. */
    public static native int copyAllYAXData(String src, String dst);

    /** Copies the entries of src with the given data type into dst; 1 on success, 0 on failure. */
    public static native int copyAllYAXDataType(String src, String dst, int type);

    /** Copies the entry named name from src into dst; 1 on success, 0 on failure. */
    public static native int copyAllYAXDataKeyName(String src, String dst, String name);

    /** Saves a sound as a legacy sound entry of the image under name; 1 on success, 0 on failure. */
    public static native int saveAudioJPEG(String path, byte[] data, int length, String name, int nameLength);

    /** Removes every legacy sound from the image; 1 on success, 0 on failure. */
    public static native int clearVonoData(String path);

    /** Removes the legacy sound entry named name; 1 on success, 0 on failure. */
    public static native int deleteVonoData(String path, String name);

    /** Adds (option bit 0: replaces) an entry by rewriting the file; 1 on success, 0 on failure. */
    public static native int addYAXData(String path, String name, int nameLength, byte[] subInfo, int subInfoLength,
                                        byte[] data, int dataLength, int dataType, int option);

    /** Adds an entry without moving the bytes before the trailer; 1 on success, 0 on failure. */
    public static native int addFastYAXData(String path, String name, int nameLength, byte[] subInfo, int subInfoLength,
                                            byte[] data, int dataLength, int dataType, int option);

    /** Adds an entry whose payload is the file dataPath; 1 on success, 0 on failure. */
    public static native int addYAXDataFile(String path, String name, int nameLength, byte[] subInfo, int subInfoLength,
                                            String dataPath, int dataType, int option);

    /** Fast add of the whole file dataPath; 0 when it cannot be read or is empty. */
    public static native int addFastYAXDataFile(String path, String name, int nameLength, byte[] subInfo,
                                                int subInfoLength, String dataPath, int dataType, int option);

    /** Adds count file entries in order; 0 at the first that fails, else the last save's result. */
    public static native int addYAXDataFiles(String path, String[] names, int[] nameLengths, String[] dataPaths,
                                             int[] dataTypes, int option, int count);

    /** Deletes the entry named name by rewriting the file; 0 without a trailer or such entry. */
    public static native int deleteYAXData(String path, String name, int nameLength);

    /** Deletes the entry named name in place; 1 on success, 0 on failure. */
    public static native int fastDeleteYAXData(String path, String name);

    /** Removes the whole trailer; 1 on success, 0 on failure. */
    public static native int clearYAXData(String path);

    /** Removes every entry in place; 1 on success, 0 on failure. */
    public static native int fastClearYAXData(String path);

    /** Returns {offset, length} of the entry's payload, or null when absent. */
    public static native int[] getYAXDataPosition(String path, String name);

    /** Returns {offset, length} of the entry's payload as longs, or null when absent. */
    public static native long[] getYAXDataPosition64(String path, String name);

    /** Returns {offset, length} of the entry's sub-information, or null when absent. */
    public static native int[] getYAXSubDataPosition(String path, String name);

    /** Returns {offset, length} of the entry's sub-information as longs, or null when absent. */
    public static native long[] getYAXSubDataPosition64(String path, String name);

    /** Returns the number of entries; 0 without a trailer. */
    public static native int getYAXDataCount(String path);

    /** Returns the index-th entry name, or null without a trailer or outside the table. */
    public static native String getYAXName(String path, int index);

    /** Returns the data type of the entry named name; 0 without a trailer. */
    public static native int getYAXDataType(String path, String name);

    /** Returns every entry name in table order, or null without a trailer. */
    public static native String[] listKeyNames(String path);

    /** Returns every entry's data type in table order, or null without entries. */
    public static native int[] listYAXDataTypes(String path);

    /** Returns the names of the entries with the given data type, or null when there are none. */
    public static native String[] listKeyNamesByDataType(String path, int dataType);

    /** Replaces the image before the trailer with cover; 1 on success, 0 on failure or a null argument. */
    public static native int FastChangeCoverTest(String path, byte[] cover, int coverLength);

    /** Adds an entry to an MP4 file; 0 when it cannot be opened or the save fails. */
    public static native int addYAXDataToMP4(String path, String name, int nameLength, byte[] subInfo,
                                             int subInfoLength, byte[] data, int dataLength, int dataType, int option);

    /** Adds an entry with the payload file dataPath to an MP4 file; 0 when it cannot be opened or the save fails. */
    public static native int addYAXDataFileToMP4(String path, String name, int nameLength, byte[] subInfo,
                                                 int subInfoLength, String dataPath, int dataType, int option);

    /** Writes every entry to outDir/parsed/ (sub-information to subdata_NAME); 0 without entries, else 1. */
    public static native int getAllParsedDataForTest(String path, String outDir);
}
