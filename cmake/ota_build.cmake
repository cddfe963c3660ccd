# The device program's sources, and the one place that says how they are built. They are
# built three ways: the device program itself (freestanding, static, no C library), and
# for the host as a static library, once for the unit tests, the publisher and the
# benchmarks, and once more with the fuzzer's instrumentation for the fuzz targets.
#
#   ota_add_build(<name> DEVICE)  the executable; ota.debug in the build directory, and the
#                                 stripped file that ships, bin/ota
#   ota_add_build(<name> HOST)    a static library of the same sources with OTA_HOST_BUILD
#                                 (see runtime/syscall.h), ota/ on its users' include path;
#                                 the caller adds its own flags (hardening, sanitizers,
#                                 fuzzer coverage)

set(OTA_SOURCE_DIR ${CMAKE_SOURCE_DIR}/ota)
file(GLOB_RECURSE OTA_SOURCES CONFIGURE_DEPENDS ${OTA_SOURCE_DIR}/*.cpp)
# The entry and the memory functions the compiler calls belong to the device program only;
# on the host the C library provides both.
file(GLOB OTA_DEVICE_ONLY_SOURCES CONFIGURE_DEPENDS ${OTA_SOURCE_DIR}/device/*.cpp)
list(REMOVE_ITEM OTA_SOURCES ${OTA_DEVICE_ONLY_SOURCES})

function(ota_add_build name kind)
  if(kind STREQUAL "DEVICE")
    add_executable(${name} ${OTA_SOURCES} ${OTA_DEVICE_ONLY_SOURCES})
    set_target_properties(${name} PROPERTIES OUTPUT_NAME ota.debug RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
    target_include_directories(${name} PRIVATE ${OTA_SOURCE_DIR})
    target_compile_options(${name} PRIVATE
      -ffreestanding -fno-exceptions -fno-rtti -fno-asynchronous-unwind-tables -fno-unwind-tables
      -fno-stack-protector -fno-threadsafe-statics -fno-pic -fno-pie -fcf-protection=none
      -ffunction-sections -fdata-sections -Os -Wall -Wextra)
    # Hashing files and unpacking them are the hot paths and are built for speed. Signature
    # checks run a few times per command; built for size they cost about 4% of their time.
    set(hot_sources ${OTA_SOURCES})
    list(FILTER hot_sources INCLUDE REGEX "/(trust/sha256|gzip/[^/]*)\\.cpp$")
    set_source_files_properties(${hot_sources} TARGET_DIRECTORY ${name} PROPERTIES COMPILE_OPTIONS -O2)
    # Without loop-idiom recognition, so that the loops of memcpy and memset do not turn
    # into calls to themselves.
    set_source_files_properties(${OTA_SOURCE_DIR}/device/memory.cpp TARGET_DIRECTORY ${name}
      PROPERTIES COMPILE_OPTIONS -fno-tree-loop-distribute-patterns)
    target_link_options(${name} PRIVATE
      -nostdlib -static -no-pie -Wl,--gc-sections -Wl,-e,_start -Wl,--build-id=none -Wl,-z,noexecstack
      -Wl,-z,norelro -Wl,-z,noseparate-code)
    # What ships is the stripped file; the unstripped one stays beside the build for debugging.
    add_custom_command(TARGET ${name} POST_BUILD
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/bin
      COMMAND ${CMAKE_OBJCOPY} --strip-all --remove-section=.comment --remove-section=.note.gnu.property
              $<TARGET_FILE:${name}> ${CMAKE_BINARY_DIR}/bin/ota
      VERBATIM)
  elseif(kind STREQUAL "HOST")
    add_library(${name} STATIC ${OTA_SOURCES})
    target_include_directories(${name} PUBLIC ${OTA_SOURCE_DIR})
    target_compile_definitions(${name} PUBLIC OTA_HOST_BUILD)
    target_compile_options(${name} PRIVATE -fno-exceptions -fno-rtti)
  else()
    message(FATAL_ERROR "ota_add_build: ${kind} is neither DEVICE nor HOST")
  endif()
endfunction()
