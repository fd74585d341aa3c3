# Installs the launcher for one desktop user. Without an explicit prefix it goes to ~/.local:
# the self-update replaces the bundle in place, so the bundle must sit where the user can write.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT AND DEFINED ENV{HOME})
    set(CMAKE_INSTALL_PREFIX "$ENV{HOME}/.local" CACHE PATH "Install prefix" FORCE)
endif()

option(ZENTHO_INTEGRATE_DESKTOP
    "Have the installed launcher add itself to the user's desktop (skipped under DESTDIR)" ON)

set(ZENTHO_INSTALL_BUNDLE "lib/zentho/ZenthoLauncher.app")

# The bundle exactly as the build lays it out: self-contained, sealed, seed runtime included.
install(DIRECTORY "${ZENTHO_BUNDLE_DIR}/"
    DESTINATION "${ZENTHO_INSTALL_BUNDLE}"
    USE_SOURCE_PERMISSIONS)

# The command and the uninstaller depend on where the install finally lands (--prefix may differ
# from the configured prefix), so they are made at install time; the desktop entry, icon,
# AppStream data and link handler are the launcher's own to write (--integrate), as on a player's
# first start.
install(CODE "
set(ZENTHO_INSTALL_BUNDLE \"${ZENTHO_INSTALL_BUNDLE}\")
set(ZENTHO_DATA_DIR \"${PROJECT_SOURCE_DIR}/data\")
set(ZENTHO_INTEGRATE_DESKTOP ${ZENTHO_INTEGRATE_DESKTOP})
")
install(SCRIPT "${PROJECT_SOURCE_DIR}/cmake/ZenthoDesktopEntry.cmake")
