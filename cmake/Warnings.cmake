# JUCE's recommended warnings on every target of ours; -Werror on our own sources when
# QUENDA_WARNINGS_AS_ERRORS is on. scripts/test.sh turns it on in the gcc and the clang builds
# alike: the two compilers warn about different things.
function (quenda_enable_warnings target)
    target_link_libraries (${target} PRIVATE juce::juce_recommended_warning_flags)
    if (NOT QUENDA_WARNINGS_AS_ERRORS)
        return()
    endif()

    # Per source file: JUCE's module sources compiled into the same target are not ours to fix,
    # and their command lines (and so the shared compiler cache) stay the same either way.
    get_target_property (sources ${target} SOURCES)
    get_target_property (folder ${target} SOURCE_DIR)
    foreach (source IN LISTS sources)
        if (NOT source MATCHES "^${JUCE_MODULES_DIR}" AND NOT source MATCHES "BinaryData|JuceLibraryCode")
            set_property (SOURCE "${source}" DIRECTORY "${folder}" APPEND PROPERTY COMPILE_OPTIONS -Werror)
        endif()
    endforeach()
endfunction()
