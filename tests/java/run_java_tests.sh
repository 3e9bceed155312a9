#!/bin/sh
# Compiles the Java classes and their JUnit suite and runs it on a JVM with
# -Xcheck:jni against the freshly built libYAX.so. Any JNI warning fails.
# Usage: run_java_tests.sh SRC_ROOT LIB_FILE OUT_DIR PENDING [PRELOAD]
set -e
src=$1 lib=$2 out=$3 pending=$4 preload=$5
cp=/usr/share/java/junit4.jar:/usr/share/java/hamcrest-core.jar
rm -rf "$out" && mkdir -p "$out"
javac -d "$out" -cp "$cp" "$src"/java/com/kalvora/android/media/*.java "$src"/tests/java/JniTest.java
log="$out/run.log"
set +e
if [ -n "$preload" ]; then
  # The JVM under the sanitizer runtime: its own signal use and its leaks at exit are left alone.
  LD_PRELOAD="$preload" ASAN_OPTIONS=handle_segv=0:detect_leaks=0:allow_user_segv_handler=1 \
    java -Xcheck:jni -Djava.library.path="$(dirname "$lib")" -Dyax.lib="$lib" -Dyax.pending="$pending" \
      -cp "$out:$cp" org.junit.runner.JUnitCore JniTest >"$log" 2>&1
else
  java -Xcheck:jni -Djava.library.path="$(dirname "$lib")" -Dyax.lib="$lib" -Dyax.pending="$pending" \
    -cp "$out:$cp" org.junit.runner.JUnitCore JniTest >"$log" 2>&1
fi
rc=$?
set -e
cat "$log"
if grep -q "WARNING in native method\|FATAL ERROR in native method" "$log"; then
  echo "JNI misuse reported by -Xcheck:jni" >&2
  exit 1
fi
exit $rc
