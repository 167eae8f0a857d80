# i386-linux-gnu.cmake - builds for 32-bit x86 Linux on a 64-bit Debian host with multiarch
# packages (scripts/install-deps.sh --i386): gcc -m32, the i386 libraries and the i386 JDK.
#   cmake -S . -B build-i386 --toolchain cmake/i386-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
# Debian's i386 libjvm leaves one symbol of its own to be resolved at run time.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32 -Wl,--allow-shlib-undefined")
set(CMAKE_SHARED_LINKER_FLAGS_INIT -m32)
set(CMAKE_MODULE_LINKER_FLAGS_INIT -m32)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_LIBRARY_PATH /usr/lib/i386-linux-gnu /lib/i386-linux-gnu)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu)
# pkg-config and the JDK of the target architecture.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{JAVA_HOME} /usr/lib/jvm/java-17-openjdk-i386)
set(Java_JAVA_EXECUTABLE /usr/lib/jvm/java-17-openjdk-i386/bin/java)
# The JDK whose jni.h and libjvm the bridge and the tests build against.
set(ZAV_JDK /usr/lib/jvm/java-17-openjdk-i386)
# javac and jar are build tools: the host's, since class files are the same on every machine (and
# the i386 JVM may only run under emulation here).
set(Java_JAVAC_EXECUTABLE /usr/lib/jvm/java-17-openjdk-amd64/bin/javac)
set(Java_JAR_EXECUTABLE /usr/lib/jvm/java-17-openjdk-amd64/bin/jar)
