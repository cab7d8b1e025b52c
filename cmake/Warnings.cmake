# JUCE's recommended warnings on every target of ours; -Werror on our own sources when
# QUENDA_WARNINGS_AS_ERRORS is on (scripts/test.sh turns it on).
function (quenda_enable_warnings target)
    target_link_libraries (${target} PRIVATE juce::juce_recommended_warning_flags)
    if (QUENDA_WARNINGS_AS_ERRORS)
        target_compile_options (${target} PRIVATE -Werror)
    endif()
endfunction()

# JUCE's module sources, compiled into the shared-code target, are not ours to fix.
function (quenda_relax_warnings_for_juce_sources target)
    get_target_property (sources ${target} SOURCES)
    foreach (source IN LISTS sources)
        if (source MATCHES "^${JUCE_MODULES_DIR}" OR source MATCHES "/juce_[a-z_]+/juce_[a-z_0-9]+\\.(cpp|mm)$"
            OR source MATCHES "BinaryData")
            set_source_files_properties ("${source}" TARGET_DIRECTORY ${target}
                                         PROPERTIES COMPILE_OPTIONS "-Wno-error")
        endif()
    endforeach()
endfunction()
