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
# The bundles' libraries are loaded, never run: no executable bit.
install (DIRECTORY "${quendaVst3Bundle}" DESTINATION "${vst3Dir}" FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ COMPONENT plugins)
install (DIRECTORY "$<TARGET_FILE_DIR:Quenda_LV2>" DESTINATION "${lv2Dir}" FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ COMPONENT plugins)

install (PROGRAMS "$<TARGET_FILE:Quenda_Standalone>" DESTINATION "${CMAKE_INSTALL_BINDIR}" RENAME quenda COMPONENT programs)
install (TARGETS quenda-render RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT programs)

# `cmake --install --strip` (and the package) strip the bundles too, which install(DIRECTORY)
# leaves alone.
install (CODE "
    if (CMAKE_INSTALL_DO_STRIP)
        foreach (library \"${vst3Dir}/Quenda.vst3/Contents/x86_64-linux/Quenda.so\" \"${lv2Dir}/Quenda.lv2/$<TARGET_FILE_NAME:Quenda_LV2>\" \"${CMAKE_INSTALL_BINDIR}/quenda\")
            if (NOT IS_ABSOLUTE \"\${library}\")
                set (library \"\${CMAKE_INSTALL_PREFIX}/\${library}\")
            endif()
            execute_process (COMMAND \"${CMAKE_STRIP}\" --strip-unneeded \"\$ENV{DESTDIR}\${library}\")
        endforeach()
    endif()
    " COMPONENT plugins)

# Manual pages and the changelog (CHANGELOG.md in Debian's format) go compressed, as Debian wants them; -n keeps the bytes
# independent of the build time.
set (linuxFiles "${CMAKE_SOURCE_DIR}/packaging/linux")
set (compressedDocs)
foreach (page quenda-render.1 quenda.1)
    configure_file ("${linuxFiles}/${page}.in" "${CMAKE_BINARY_DIR}/${page}" @ONLY)
    list (APPEND compressedDocs "${page}")
endforeach()
add_custom_command (OUTPUT "${CMAKE_BINARY_DIR}/changelog"
    COMMAND bash "${CMAKE_SOURCE_DIR}/packaging/debian/changelog.sh" "${CMAKE_SOURCE_DIR}/CHANGELOG.md" "${CMAKE_BINARY_DIR}/changelog"
    DEPENDS "${CMAKE_SOURCE_DIR}/CHANGELOG.md" "${CMAKE_SOURCE_DIR}/packaging/debian/changelog.sh")
list (APPEND compressedDocs changelog)
foreach (doc IN LISTS compressedDocs)
    add_custom_command (OUTPUT "${CMAKE_BINARY_DIR}/${doc}.gz"
        COMMAND gzip -9nf -k "${CMAKE_BINARY_DIR}/${doc}"
        DEPENDS "${CMAKE_BINARY_DIR}/${doc}")
    list (APPEND compressedOutputs "${CMAKE_BINARY_DIR}/${doc}.gz")
endforeach()
add_custom_target (quenda_compressed_docs ALL DEPENDS ${compressedOutputs})

install (FILES "${linuxFiles}/quenda.desktop" DESTINATION "${CMAKE_INSTALL_DATADIR}/applications" COMPONENT programs)
install (FILES "${linuxFiles}/quenda.svg" DESTINATION "${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps" COMPONENT programs)
install (FILES "${CMAKE_BINARY_DIR}/quenda-render.1.gz" "${CMAKE_BINARY_DIR}/quenda.1.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT programs)
install (FILES "${CMAKE_SOURCE_DIR}/packaging/debian/copyright" "${CMAKE_BINARY_DIR}/changelog.gz"
         DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/quenda" COMPONENT programs)
