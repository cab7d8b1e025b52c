# `cmake --install <build> [--prefix P]` (and DESTDIR) lays Quenda out as Linux packages do:
# plug-ins in P/lib/vst, P/lib/vst3 and P/lib/lv2 (where hosts look, not the multiarch folder),
# quenda-render and the standalone app (as `quenda`) in P/bin, the desktop entry, icon and man
# page under P/share. The prefix defaults to /usr/local whoever runs it; the per-user plug-in
# folders (~/.vst, ~/.vst3, ~/.lv2) are only used when asked for with QUENDA_USER_INSTALL.
if (WIN32)
    return()
endif()

include (GNUInstallDirs)

option (QUENDA_USER_INSTALL "Install the plug-ins into ~/.vst, ~/.vst3 and ~/.lv2 of the user who configures" OFF)

if (QUENDA_USER_INSTALL)
    set (vstDir "$ENV{HOME}/.vst")
    set (vst3Dir "$ENV{HOME}/.vst3")
    set (lv2Dir "$ENV{HOME}/.lv2")
else()
    set (vstDir lib/vst)
    set (vst3Dir lib/vst3)
    set (lv2Dir lib/lv2)
endif()

get_target_property (quendaVst3Bundle Quenda_VST3 JUCE_PLUGIN_ARTEFACT_FILE)

# A bundle left by an older version could keep files this one no longer has.
install (CODE "
    foreach (dir \"${vst3Dir}/Quenda.vst3\" \"${lv2Dir}/Quenda.lv2\")
        if (NOT IS_ABSOLUTE \"\${dir}\")
            set (dir \"\${CMAKE_INSTALL_PREFIX}/\${dir}\")
        endif()
        file (REMOVE_RECURSE \"\$ENV{DESTDIR}\${dir}\")
    endforeach()
    " COMPONENT plugins)

install (TARGETS Quenda_VST LIBRARY DESTINATION "${vstDir}" COMPONENT plugins)
install (DIRECTORY "${quendaVst3Bundle}" DESTINATION "${vst3Dir}" USE_SOURCE_PERMISSIONS COMPONENT plugins)
install (DIRECTORY "$<TARGET_FILE_DIR:Quenda_LV2>" DESTINATION "${lv2Dir}" USE_SOURCE_PERMISSIONS COMPONENT plugins)

install (PROGRAMS "$<TARGET_FILE:Quenda_Standalone>" DESTINATION "${CMAKE_INSTALL_BINDIR}" RENAME quenda COMPONENT programs)
install (TARGETS quenda-render RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT programs)

set (linuxFiles "${CMAKE_SOURCE_DIR}/packaging/linux")
install (FILES "${linuxFiles}/quenda.desktop" DESTINATION "${CMAKE_INSTALL_DATADIR}/applications" COMPONENT programs)
install (FILES "${linuxFiles}/quenda.svg" DESTINATION "${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps" COMPONENT programs)
configure_file ("${linuxFiles}/quenda-render.1.in" "${CMAKE_BINARY_DIR}/quenda-render.1" @ONLY)
install (FILES "${CMAKE_BINARY_DIR}/quenda-render.1" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT programs)
