# JUCE includes <pluginterfaces/vst2.x/aeffect.h>; fst-dev installs an ABI-compatible
# header set under /usr/include/pluginterfaces/fst. Build an SDK-shaped folder that points there.
function (quenda_setup_vst2_sdk)
    # Plain C headers, the same for every target: not re-rooted when cross-compiling.
    find_path (FST_INCLUDE_DIR aeffectx.h PATHS /usr/include/pluginterfaces/fst NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
    if (NOT FST_INCLUDE_DIR)
        message (FATAL_ERROR "fst-dev is missing: run scripts/setup.sh")
    endif()
    set (sdk "${CMAKE_BINARY_DIR}/fst-vst2-sdk")
    file (MAKE_DIRECTORY "${sdk}/pluginterfaces")
    if (NOT EXISTS "${sdk}/pluginterfaces/vst2.x")
        file (CREATE_LINK "${FST_INCLUDE_DIR}" "${sdk}/pluginterfaces/vst2.x" SYMBOLIC)
    endif()
    juce_set_vst2_sdk_path ("${sdk}")
    set (FST_INCLUDE_DIR "${FST_INCLUDE_DIR}" PARENT_SCOPE)
endfunction()
