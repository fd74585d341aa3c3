# Runs at install time, after the bundle has been copied: puts `zentho-launcher` on the PATH and
# writes the desktop entry that handles zentho: links, the AppStream data and the command that
# uninstalls all of it.
set(zentho_root "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
set(zentho_command "${CMAKE_INSTALL_PREFIX}/bin/zentho-launcher")
set(zentho_apps "${zentho_root}/share/applications")
set(zentho_entry "${zentho_apps}/zentho-launcher.desktop")
set(zentho_metainfo "${zentho_root}/share/metainfo/${ZENTHO_APPSTREAM_ID}.metainfo.xml")
set(zentho_uninstall "${zentho_root}/bin/zentho-launcher-uninstall")

# A relative link keeps the install movable; the launcher finds its bundle through the link.
file(MAKE_DIRECTORY "${zentho_root}/bin")
file(REMOVE "${zentho_root}/bin/zentho-launcher")
file(CREATE_LINK "../${ZENTHO_INSTALL_BUNDLE}/Contents/MacOS/ZenthoLauncher"
    "${zentho_root}/bin/zentho-launcher" SYMBOLIC)
message(STATUS "Installing: ${zentho_root}/bin/zentho-launcher")

# Exec names the command as it stands when nothing in its path needs quoting: the generic mode of
# xdg-open (xdg-utils 1.1.3, used where no desktop environment is detected) cannot run a quoted
# one. Any other path becomes a quoted argument (backslash, quote, backquote and dollar escaped,
# "%" doubled) inside a string value (backslash escaped once more), which desktops that follow
# the desktop-entry rules run. TryExec is a plain string value.
if(zentho_command MATCHES "[] \t\r\n\"'\\\\><~|&;$*?#()`%[{}!^]")
    set(zentho_quoted "${zentho_command}")
    string(REPLACE "\\" "\\\\\\\\" zentho_quoted "${zentho_quoted}")
    foreach(zentho_char "\"" "`" "$")
        string(REPLACE "${zentho_char}" "\\\\${zentho_char}" zentho_quoted "${zentho_quoted}")
    endforeach()
    string(REPLACE "%" "%%" zentho_quoted "${zentho_quoted}")
    set(ZENTHO_LAUNCHER_EXEC "\"${zentho_quoted}\"")
else()
    set(ZENTHO_LAUNCHER_EXEC "${zentho_command}")
endif()
string(REPLACE "\\" "\\\\" ZENTHO_LAUNCHER_COMMAND "${zentho_command}")
file(READ "${ZENTHO_DATA_DIR}/zentho-launcher.desktop.in" zentho_template)
string(CONFIGURE "${zentho_template}" zentho_desktop @ONLY)
file(MAKE_DIRECTORY "${zentho_apps}")
file(WRITE "${zentho_entry}" "${zentho_desktop}")
message(STATUS "Installing: ${zentho_entry}")

configure_file("${ZENTHO_DATA_DIR}/zentho-launcher.metainfo.xml.in" "${zentho_metainfo}" @ONLY)
message(STATUS "Installing: ${zentho_metainfo}")

# The uninstaller knows the prefix the install finally lands in (not a staging DESTDIR), written
# as one single-quoted word for /bin/sh.
string(REPLACE "'" "'\\''" ZENTHO_SH_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(ZENTHO_SH_PREFIX "'${ZENTHO_SH_PREFIX}'")
configure_file("${ZENTHO_DATA_DIR}/zentho-launcher-uninstall.in" "${zentho_uninstall}" @ONLY)
file(CHMOD "${zentho_uninstall}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
message(STATUS "Installing: ${zentho_uninstall}")

list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${zentho_root}/bin/zentho-launcher" "${zentho_entry}"
    "${zentho_metainfo}" "${zentho_uninstall}")
