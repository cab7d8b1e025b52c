if (QUENDA_SANITIZE)
    add_compile_options (-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options (-fsanitize=address,undefined)
endif()

if (QUENDA_TSAN)
    if (QUENDA_SANITIZE)
        message (FATAL_ERROR "QUENDA_TSAN and QUENDA_SANITIZE cannot share a build")
    endif()
    add_compile_options (-fsanitize=thread -fno-omit-frame-pointer -g)
    add_link_options (-fsanitize=thread)
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
