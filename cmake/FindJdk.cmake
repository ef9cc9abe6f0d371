# Locates the JDK: NIMBRA_JAVAC (the compiler) and the target nimbra::jni (jni.h).
# CMake's own FindJNI insists on AWT, which a headless JDK does not have.

if(DEFINED ENV{JAVA_HOME} AND EXISTS "$ENV{JAVA_HOME}/bin/javac")
  set(_nimbra_javac "$ENV{JAVA_HOME}/bin/javac")
else()
  find_program(_nimbra_javac javac NO_CACHE)
endif()
if(NOT _nimbra_javac)
  message(FATAL_ERROR "no javac: set JAVA_HOME or put a JDK's bin folder on PATH")
endif()

# /usr/bin/javac is a chain of links into the JDK's own folder.
file(REAL_PATH "${_nimbra_javac}" NIMBRA_JAVAC)
cmake_path(GET NIMBRA_JAVAC PARENT_PATH _nimbra_jdk)
cmake_path(GET _nimbra_jdk PARENT_PATH _nimbra_jdk)
if(NOT EXISTS "${_nimbra_jdk}/include/jni.h")
  message(FATAL_ERROR "${_nimbra_jdk} has no include/jni.h: a full JDK is needed")
endif()

add_library(nimbra_jni INTERFACE)
add_library(nimbra::jni ALIAS nimbra_jni)
target_include_directories(nimbra_jni SYSTEM INTERFACE
  "${_nimbra_jdk}/include" "${_nimbra_jdk}/include/linux")
