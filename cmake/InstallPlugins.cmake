# `cmake --install <build>` copies the three plug-ins where Linux hosts look: ~/.vst, ~/.vst3 and
# ~/.lv2 for a user, /usr/local/lib/{vst,vst3,lv2} for root. QUENDA_PLUGIN_DIR overrides both
# (vst, vst3 and lv2 folders are made below it).
set (QUENDA_PLUGIN_DIR "" CACHE PATH "Install the plug-ins below this folder instead of the usual ones")

# The LV2 build is Linux-only.
set (quenda_install_lv2 "")
if (TARGET Quenda_LV2)
    set (quenda_install_lv2 "file (INSTALL \"$<TARGET_FILE_DIR:Quenda_LV2>\" DESTINATION \"\${lv2}\" USE_SOURCE_PERMISSIONS)")
endif()

install (CODE "
    set (root \"${QUENDA_PLUGIN_DIR}\")
    execute_process (COMMAND id -u OUTPUT_VARIABLE uid OUTPUT_STRIP_TRAILING_WHITESPACE)
    if (root)
        set (vst \"\${root}/vst\")
        set (vst3 \"\${root}/vst3\")
        set (lv2 \"\${root}/lv2\")
    elseif (uid STREQUAL \"0\")
        set (vst /usr/local/lib/vst)
        set (vst3 /usr/local/lib/vst3)
        set (lv2 /usr/local/lib/lv2)
    else()
        set (vst \"\$ENV{HOME}/.vst\")
        set (vst3 \"\$ENV{HOME}/.vst3\")
        set (lv2 \"\$ENV{HOME}/.lv2\")
    endif()
    # The VST3 library sits in Quenda.vst3/Contents/<arch>-linux.
    get_filename_component (vst3Bundle \"$<TARGET_FILE_DIR:Quenda_VST3>/../..\" ABSOLUTE)
    # A bundle left from an older build could keep files the new one no longer has.
    file (REMOVE_RECURSE \"\$ENV{DESTDIR}\${vst3}/Quenda.vst3\" \"\$ENV{DESTDIR}\${lv2}/Quenda.lv2\")
    file (INSTALL \"$<TARGET_FILE:Quenda_VST>\" DESTINATION \"\${vst}\")
    file (INSTALL \"\${vst3Bundle}\" DESTINATION \"\${vst3}\" USE_SOURCE_PERMISSIONS)
    ${quenda_install_lv2}
")
