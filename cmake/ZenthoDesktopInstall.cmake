# Installs the launcher for one desktop user. Without an explicit prefix it goes to ~/.local:
# the self-update replaces the bundle in place, so the bundle must sit where the user can write.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT AND DEFINED ENV{HOME})
    set(CMAKE_INSTALL_PREFIX "$ENV{HOME}/.local" CACHE PATH "Install prefix" FORCE)
endif()

option(ZENTHO_REGISTER_LINK_HANDLER
    "Make the installed launcher the desktop's handler of zentho: links (skipped under DESTDIR)" ON)

set(ZENTHO_INSTALL_BUNDLE "lib/zentho/ZenthoLauncher.app")
# The AppStream component ID, in reverse-DNS form; the default follows the default release host.
set(ZENTHO_APPSTREAM_ID "invalid.zentho.launcher" CACHE STRING
    "AppStream ID of the installed launcher (names its share/metainfo file)")

# The bundle exactly as the build lays it out, seed runtime included.
install(DIRECTORY "${ZENTHO_BUNDLE_DIR}/"
    DESTINATION "${ZENTHO_INSTALL_BUNDLE}"
    USE_SOURCE_PERMISSIONS)
install(FILES "${PROJECT_SOURCE_DIR}/data/zentho-launcher.svg"
    DESTINATION share/icons/hicolor/scalable/apps)

# The command, the desktop entry, the uninstaller and the link registration depend on where the
# install finally lands (--prefix may differ from the configured prefix), so they are made at
# install time.
install(CODE "
set(ZENTHO_INSTALL_BUNDLE \"${ZENTHO_INSTALL_BUNDLE}\")
set(ZENTHO_DATA_DIR \"${PROJECT_SOURCE_DIR}/data\")
set(ZENTHO_APPSTREAM_ID \"${ZENTHO_APPSTREAM_ID}\")
set(ZENTHO_REGISTER_LINK_HANDLER ${ZENTHO_REGISTER_LINK_HANDLER})
")
install(SCRIPT "${PROJECT_SOURCE_DIR}/cmake/ZenthoDesktopEntry.cmake")
install(SCRIPT "${PROJECT_SOURCE_DIR}/cmake/ZenthoDesktopHandler.cmake")
