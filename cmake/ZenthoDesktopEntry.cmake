# Runs at install time, after the bundle has been copied: puts `zentho-launcher` on the PATH, writes
# the command that uninstalls the launcher, and has the installed launcher add itself to the
# user's desktop (a staged DESTDIR install is somebody else's package: it leaves the desktop alone).
set(zentho_root "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
set(zentho_uninstall "${zentho_root}/bin/zentho-launcher-uninstall")
set(zentho_launcher "${zentho_root}/${ZENTHO_INSTALL_BUNDLE}/Contents/MacOS/ZenthoLauncher")

# A relative link keeps the install movable; the launcher finds its bundle through the link.
file(MAKE_DIRECTORY "${zentho_root}/bin")
file(REMOVE "${zentho_root}/bin/zentho-launcher")
file(CREATE_LINK "../${ZENTHO_INSTALL_BUNDLE}/Contents/MacOS/ZenthoLauncher"
    "${zentho_root}/bin/zentho-launcher" SYMBOLIC)
message(STATUS "Installing: ${zentho_root}/bin/zentho-launcher")

# The uninstaller knows the prefix the install finally lands in (not a staging DESTDIR), written
# as one single-quoted word for /bin/sh.
string(REPLACE "'" "'\\''" ZENTHO_SH_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(ZENTHO_SH_PREFIX "'${ZENTHO_SH_PREFIX}'")
configure_file("${ZENTHO_DATA_DIR}/zentho-launcher-uninstall.in" "${zentho_uninstall}" @ONLY)
file(CHMOD "${zentho_uninstall}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
message(STATUS "Installing: ${zentho_uninstall}")
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${zentho_root}/bin/zentho-launcher" "${zentho_uninstall}")

if(ZENTHO_INTEGRATE_DESKTOP AND "$ENV{DESTDIR}" STREQUAL "")
    execute_process(COMMAND "${zentho_launcher}" --integrate RESULT_VARIABLE zentho_integrated
                    OUTPUT_VARIABLE zentho_said ERROR_VARIABLE zentho_said)
    string(STRIP "${zentho_said}" zentho_said)
    if(NOT zentho_integrated EQUAL 0)
        message(FATAL_ERROR "${zentho_launcher} --integrate: ${zentho_said}")
    endif()
    message(STATUS "${zentho_said}")
endif()
