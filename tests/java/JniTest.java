import static org.junit.Assert.*;

import com.kalvora.android.media.VonoJNI;
import com.kalvora.android.media.YAXJNI;
import java.io.File;
import java.io.IOException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.nio.file.Files;
import java.util.*;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;

/** Drives both Java classes on files built here byte by byte. */
public class JniTest {
    @Rule public TemporaryFolder tmp = new TemporaryFolder();

    /** A small JPEG: SOI, a comment segment, two bytes, EOI. */
    static byte[] jpeg(int extra) {
        int fill = 40 + extra;  // a trailer behind fewer bytes is not taken for one
        byte[] b = new byte[4 + 4 + fill + 2];
        b[0] = (byte) 0xFF; b[1] = (byte) 0xD8; b[2] = (byte) 0xFF; b[3] = (byte) 0xFE;
        b[4] = 0; b[5] = (byte) (fill + 2);
        for (int i = 0; i < fill; i++) b[6 + i] = (byte) ('a' + i % 26);
        b[b.length - 4] = 0x11; b[b.length - 3] = 0x22;
        b[b.length - 2] = (byte) 0xFF; b[b.length - 1] = (byte) 0xD9;
        return b;
    }

    String file(byte[] bytes) throws IOException {
        File f = tmp.newFile();
        Files.write(f.toPath(), bytes);
        return f.getPath();
    }

    static byte[] read(String p) throws IOException { return Files.readAllBytes(new File(p).toPath()); }

    static byte[] slice(byte[] b, long off, long len) {
        return Arrays.copyOfRange(b, (int) off, (int) (off + len));
    }

    @Test public void everyNativeIsExportedUnderItsName() throws Exception {
        Process p = new ProcessBuilder(System.getProperty("yax.nm", "nm"), "-D", "--defined-only",
                System.getProperty("yax.lib")).redirectErrorStream(true).start();
        Set<String> syms = new HashSet<>();
        for (String line : new String(p.getInputStream().readAllBytes()).split("\n")) {
            String[] w = line.trim().split("\\s+");
            syms.add(w[w.length - 1]);
        }
        assertEquals(0, p.waitFor());
        Set<String> pending = new HashSet<>(Arrays.asList(System.getProperty("yax.pending", "").split(",")));
        int natives = 0;
        for (Class<?> c : new Class<?>[] {YAXJNI.class, VonoJNI.class}) {
            for (Method m : c.getDeclaredMethods()) {
                if (!Modifier.isNative(m.getModifiers())) continue;
                natives++;
                String sym = "Java_" + c.getName().replace('.', '_') + "_" + m.getName();
                if (pending.contains(m.getName())) continue;
                assertTrue(sym, syms.contains(sym));
            }
        }
        assertEquals(39, natives);
        long exported = syms.stream().filter(s -> s.startsWith("Java_")).count();
        assertEquals(39 - (pending.size() - (pending.contains("") ? 1 : 0)), exported);
    }

    @Test public void plainJpegHasNothing() throws Exception {
        String p = file(jpeg(3));
        assertEquals(105, YAXJNI.getNativeVersion());
        assertEquals(105, VonoJNI.getNativeVersion());
        assertEquals(0, YAXJNI.isYAXFile(p));
        assertEquals(0, VonoJNI.isVonoFile(p));
        assertNull(YAXJNI.listKeyNames(p));
        assertNull(YAXJNI.listYAXDataTypes(p));
        assertNull(YAXJNI.listKeyNamesByDataType(p, 1));
        assertNull(YAXJNI.getYAXDataPosition(p, "a"));
        assertNull(YAXJNI.getYAXDataPosition64(p, "a"));
        assertNull(YAXJNI.getYAXSubDataPosition(p, "a"));
        assertNull(YAXJNI.getYAXSubDataPosition64(p, "a"));
        assertNull(YAXJNI.getYAXName(p, 0));
        assertNull(VonoJNI.ParseVonoFile(p));
        assertNull(VonoJNI.ParseVonoFile64(p));
        assertNull(VonoJNI.ParseVonoFile(null));
        assertEquals(0, YAXJNI.getYAXDataCount(p));
        assertEquals(0, YAXJNI.getYAXDataType(p, "a"));
        assertEquals(0, YAXJNI.deleteYAXData(p, "a", 1));
        assertEquals(0, YAXJNI.getAllParsedDataForTest(p, tmp.getRoot().getPath()));
        assertTrue(new File(tmp.getRoot(), "parsed").isDirectory());
        assertEquals(0, YAXJNI.addYAXDataToMP4(p + ".none", "a", 1, null, 0, new byte[1], 1, 1, 0));
        assertEquals(0, YAXJNI.addYAXDataFileToMP4(p + ".none", "a", 1, null, 0, p, 1, 0));
        assertArrayEquals(jpeg(3), read(p));
    }

    @Test public void entriesAddListReadDelete() throws Exception {
        byte[] orig = jpeg(5);
        String p = file(orig), payload = file(new byte[] {9, 8, 7});
        assertEquals(1, YAXJNI.addYAXData(p, "a", 1, new byte[] {1, 2}, 2, new byte[] {7}, 1, 3, 0));
        assertEquals(1, YAXJNI.addFastYAXData(p, "bb", 2, null, 0, new byte[] {5, 6}, 2, 4, 0));
        assertEquals(1, YAXJNI.addYAXDataFile(p, "c", 1, null, 0, payload, 5, 0));
        assertEquals(1, YAXJNI.addFastYAXDataFile(p, "d", 1, new byte[] {3}, 1, payload, 4, 0));
        assertEquals(0, YAXJNI.addFastYAXDataFile(p, "e", 1, null, 0, payload + ".none", 4, 0));
        assertEquals(0, YAXJNI.addFastYAXDataFile(p, "e", 1, null, 0, file(new byte[0]), 4, 0));
        assertEquals(1, YAXJNI.isYAXFile(p));
        assertEquals(4, YAXJNI.getYAXDataCount(p));
        assertArrayEquals(new String[] {"a", "bb", "c", "d"}, YAXJNI.listKeyNames(p));
        assertArrayEquals(new int[] {3, 4, 5, 4}, YAXJNI.listYAXDataTypes(p));
        assertArrayEquals(new String[] {"bb", "d"}, YAXJNI.listKeyNamesByDataType(p, 4));
        assertEquals("c", YAXJNI.getYAXName(p, 2));
        assertEquals(5, YAXJNI.getYAXDataType(p, "c"));
        byte[] f = read(p);
        Object[][] rows = {{"a", new byte[] {7}, new byte[] {1, 2}}, {"bb", new byte[] {5, 6}, null},
                           {"c", new byte[] {9, 8, 7}, null}, {"d", new byte[] {9, 8, 7}, new byte[] {3}}};
        for (Object[] r : rows) {
            String n = (String) r[0];
            int[] pos = YAXJNI.getYAXDataPosition(p, n);
            long[] pos64 = YAXJNI.getYAXDataPosition64(p, n);
            assertEquals(2, pos64.length);
            assertEquals(pos[0], pos64[0]);
            assertEquals(pos[1], pos64[1]);
            assertArrayEquals(n, (byte[]) r[1], slice(f, pos64[0], pos64[1]));
            if (r[2] != null) {
                long[] s = YAXJNI.getYAXSubDataPosition64(p, n);
                int[] s32 = YAXJNI.getYAXSubDataPosition(p, n);
                assertEquals(s[0], s32[0]);
                assertArrayEquals(n, (byte[]) r[2], slice(f, s[0], s[1]));
            }
        }
        assertNull(YAXJNI.getYAXDataPosition64(p, "zz"));
        File out = tmp.newFolder();
        assertEquals(1, YAXJNI.getAllParsedDataForTest(p, out.getPath()));
        File dir = new File(out, "parsed");
        assertEquals(new HashSet<>(Arrays.asList("a", "bb", "c", "d", "subdata_a", "subdata_d")),
                     new HashSet<>(Arrays.asList(dir.list())));
        assertArrayEquals(new byte[] {1, 2}, read(new File(dir, "subdata_a").getPath()));
        assertArrayEquals(new byte[] {9, 8, 7}, read(new File(dir, "d").getPath()));
        assertEquals(1, YAXJNI.fastDeleteYAXData(p, "bb"));
        assertEquals(1, YAXJNI.deleteYAXData(p, "a", 1));
        assertArrayEquals(new String[] {"c", "d"}, YAXJNI.listKeyNames(p));
        assertEquals(1, YAXJNI.fastClearYAXData(p));
        assertNull(YAXJNI.getYAXDataPosition64(p, "c"));  // only the filler row may stay
        assertNull(YAXJNI.getYAXDataPosition(p, "d"));
        assertEquals(1, YAXJNI.clearYAXData(p));
        assertArrayEquals(orig, read(p));
    }

    /** Copies between files (all, by type, by name) and a new cover in front of the entries. */
    @Test public void copyAndCover() throws Exception {
        String src = file(jpeg(3));
        assertEquals(1, YAXJNI.addYAXData(src, "a", 1, null, 0, new byte[] {7}, 1, 3, 0));
        assertEquals(1, YAXJNI.addYAXData(src, "bb", 2, null, 0, new byte[] {5, 6}, 2, 4, 0));
        String all = file(jpeg(300)), typed = file(jpeg(0)), named = file(jpeg(0));
        assertEquals(1, YAXJNI.copyAllYAXData(src, all));
        assertArrayEquals(new String[] {"a", "bb"}, YAXJNI.listKeyNames(all));
        assertEquals(1, YAXJNI.copyAllYAXDataType(src, typed, 4));
        assertArrayEquals(new String[] {"bb"}, YAXJNI.listKeyNames(typed));
        assertEquals(1, YAXJNI.copyAllYAXDataKeyName(src, named, "a"));
        assertArrayEquals(new String[] {"a"}, YAXJNI.listKeyNames(named));
        byte[] before = read(all);
        int[] old = YAXJNI.getYAXDataPosition(all, "bb");
        byte[] cover = jpeg(200);  // 100 bytes shorter: the room left becomes a filler entry
        assertEquals(0, YAXJNI.FastChangeCoverTest(all, null, 0));
        assertTrue(YAXJNI.FastChangeCoverTest(all, cover, cover.length) > 0);  // a byte count
        byte[] after = read(all);
        assertArrayEquals(cover, slice(after, 0, cover.length));
        assertArrayEquals(new String[] {"Invalid_Data", "a", "bb"}, YAXJNI.listKeyNames(all));  // the freed room is a filler entry
        int[] pos = YAXJNI.getYAXDataPosition(all, "bb");
        assertArrayEquals(slice(before, old[0], old[1]), slice(after, pos[0], pos[1]));
    }

    @Test public void addFilesStopsAtFirstFailure() throws Exception {
        String p = file(jpeg(1)), payload = file(new byte[] {4});
        assertEquals(0, YAXJNI.addYAXDataFiles(p, new String[] {"x", "y", "z"}, new int[] {1, 1, 1},
                new String[] {payload, payload + ".none", payload}, new int[] {1, 2, 3}, 0, 3));
        assertArrayEquals(new String[] {"x"}, YAXJNI.listKeyNames(p));
        assertEquals(1, YAXJNI.addYAXDataFiles(p, new String[] {"y", "z"}, new int[] {1, 1},
                new String[] {payload, payload}, new int[] {2, 3}, 0, 2));
        assertArrayEquals(new int[] {1, 2, 3}, YAXJNI.listYAXDataTypes(p));
    }

    /** Lengths beyond their arrays are refused before the library is called. */
    @Test public void lengthBeyondArrayIsRefused() throws Exception {
        byte[] orig = jpeg(2);
        String p = file(orig), payload = file(new byte[] {1});
        assertEquals(0, YAXJNI.addYAXData(p, "a", 1, null, 0, new byte[1], 2, 1, 0));
        assertEquals(0, YAXJNI.addFastYAXData(p, "a", 1, new byte[1], 5, new byte[1], 1, 1, 0));
        assertEquals(0, YAXJNI.addYAXData(p, "a", 2, null, 0, new byte[1], 1, 1, 0));
        assertEquals(0, YAXJNI.addYAXDataFile(p, "a", 1, new byte[0], 1, payload, 1, 0));
        assertEquals(0, YAXJNI.addYAXDataFiles(p, new String[] {"a"}, new int[] {1}, new String[] {payload},
                new int[] {1}, 0, 2));
        assertEquals(0, VonoJNI.AddSoundInVonoFile(p, new byte[3], 4));
        assertEquals(0, YAXJNI.addYAXDataToMP4(p, "a", 1, null, 0, new byte[0], 1, 1, 0));
        assertArrayEquals(orig, read(p));
    }

    @Test public void legacySoundAddParseCopyDelete() throws Exception {
        byte[] orig = jpeg(4), sound = {1, 2, 3, 4, 5};
        String p = file(orig), dst = file(jpeg(1)), plain = file(jpeg(2));
        int n = orig.length;
        assertEquals(n + 5 + 30, VonoJNI.AddSoundInVonoFile(p, sound, 5));
        assertEquals(n + 35, read(p).length);
        assertEquals(1, VonoJNI.isVonoFile(p));
        assertEquals(0, YAXJNI.isYAXFile(p));
        assertArrayEquals(new int[] {n, n + 5}, VonoJNI.ParseVonoFile(p));
        assertArrayEquals(new long[] {((long) (n + 5) << 32) | n, 0}, VonoJNI.ParseVonoFile64(p));
        assertArrayEquals(sound, slice(read(p), n, 5));
        assertEquals(1, YAXJNI.copyAdioData(p, dst));
        int m = jpeg(1).length;
        assertArrayEquals(new int[] {m, m + 5}, VonoJNI.ParseVonoFile(dst));
        byte[] before = read(dst);
        assertEquals(1, VonoJNI.copyAdioData(p, dst));  // a destination with a sound stays as it is
        assertArrayEquals(before, read(dst));
        assertEquals(1, VonoJNI.copyAdioData(plain, dst));  // no source sound: still 1
        assertArrayEquals(before, read(dst));
        assertEquals(1, VonoJNI.DeleteVonoFromFile(p));
        assertArrayEquals(orig, read(p));
        assertEquals(0, VonoJNI.DeleteVonoFromFile(p));
    }

    @Test public void soundEntriesSaveAndDelete() throws Exception {
        byte[] orig = jpeg(3), sound = {4, 3, 2, 1};
        String p = file(orig);
        assertEquals(0, YAXJNI.saveAudioJPEG(p, sound, 5, "s", 1));
        assertEquals(0, YAXJNI.clearVonoData(p));  // plain image: nothing to clear
        assertArrayEquals(orig, read(p));
        assertEquals(1, YAXJNI.saveAudioJPEG(p, sound, 4, "s", 1));
        assertEquals(1, YAXJNI.isYAXFile(p));
        assertTrue(Arrays.asList(YAXJNI.listKeyNames(p)).contains("s"));
        long[] pos = YAXJNI.getYAXDataPosition64(p, "s");
        assertArrayEquals(sound, slice(read(p), pos[0], pos[1]));
        assertEquals(1, YAXJNI.deleteVonoData(p, "s"));
        assertNull(YAXJNI.getYAXDataPosition64(p, "s"));
        assertEquals(0, YAXJNI.clearVonoData(p));  // a trailer alone is left as it is
        assertEquals(1, YAXJNI.clearYAXData(p));
        assertEquals(orig.length + 1 + 30, VonoJNI.AddSoundInVonoFile(p, sound, 1));
        assertEquals(1, YAXJNI.saveAudioJPEG(p, sound, 2, "t", 1));
        assertEquals(1, YAXJNI.clearVonoData(p));  // legacy sound and entries: the bare image stays
        assertArrayEquals(orig, read(p));
    }
}
