if (QUENDA_SANITIZE)
    add_compile_options (-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options (-fsanitize=address,undefined)
endif()

# ThreadSanitizer instruments our own code; JUCE's modules keep the plain Release flags, so
# they come from the compiler cache instead of costing a full JUCE build. Locks and atomics in
# JUCE still order events for TSan through its libc interceptors; races inside JUCE itself
# go unseen.
if (QUENDA_TSAN)
    if (QUENDA_SANITIZE)
        message (FATAL_ERROR "QUENDA_TSAN and QUENDA_SANITIZE cannot share a build")
    endif()
    add_link_options (-fsanitize=thread)
endif()

set (QUENDA_TSAN_FLAGS -fsanitize=thread -fno-omit-frame-pointer -g)

function (quenda_instrument_for_tsan)
    if (QUENDA_TSAN)
        foreach (target ${ARGN})
            target_compile_options (${target} PRIVATE ${QUENDA_TSAN_FLAGS})
        endforeach()
    endif()
endfunction()

# Our own files in a target that also compiles JUCE: those given by relative path.
function (quenda_instrument_own_sources_for_tsan target)
    if (QUENDA_TSAN)
        get_target_property (sources ${target} SOURCES)
        list (FILTER sources INCLUDE REGEX "^[^/$]")
        set_source_files_properties (${sources} TARGET_DIRECTORY ${target} PROPERTIES COMPILE_OPTIONS "${QUENDA_TSAN_FLAGS}")
    endif()
endfunction()

if (QUENDA_FUZZ)
    if (NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message (FATAL_ERROR "QUENDA_FUZZ needs clang: configure with -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++")
    endif()
    # Coverage feedback from everything the fuzz targets reach, JUCE's readers included.
    add_compile_options (-fsanitize=fuzzer-no-link)
endif()

# JUCE's FLAC reader shifts negative samples left, which is well defined on every compiler we
# use but flagged by UBSan; keep the check for our own code.
function (quenda_relax_sanitizers_for_juce_sources)
    if (QUENDA_SANITIZE)
        set_source_files_properties ("${JUCE_MODULES_DIR}/juce_audio_formats/juce_audio_formats.cpp"
                                     TARGET_DIRECTORY Quenda
                                     PROPERTIES COMPILE_OPTIONS "-fno-sanitize=shift-base")
    endif()
endfunction()
