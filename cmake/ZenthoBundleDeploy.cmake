# Run as a script (cmake -P) once a bundle's own binaries are built: makes the bundle carry
# everything the launcher needs beyond what every desktop provides, and makes it find all of it
# from where the bundle is, never through the environment or the build machine's paths.
#
#   BUNDLE          the .app folder, holding Contents/MacOS/ZenthoLauncher, the launcher library in
#                   Contents/Frameworks and the rest of its own files
#   SYSTEM_LIST     data/system-libraries.txt: the sonames taken from the system
#   EXTRA_SYSTEM    more soname patterns taken from the system (a sanitizer build's runtimes)
#   QT_PLUGINS      Qt's plugin folder;  QT_QML  Qt's QML folder
#   QML_SOURCES     the folder of the window's QML, whose imports decide the QML modules
#   SCANNER         Qt's qmlimportscanner;  PATCHELF  patchelf
#   STRIP           strip, to take the debug sections out of the bundle (empty: keep them)
#
# Contents/Frameworks   the launcher library and every library outside the system set that
#                       anything in the bundle needs, found by CMake's runtime-dependency walk
# Contents/PlugIns      the Qt plugins a desktop needs (below), as Qt lays them out
# Contents/Resources/qml  the QML modules the window imports, as qmlimportscanner names them
# Contents/MacOS/qt.conf  where Qt finds those two, relative to the bundle
# Every program in the bundle gets a DT_RPATH relative to itself that leads to Frameworks, which
# the loader also searches for the libraries and plugins loaded into it.

foreach(variable BUNDLE SYSTEM_LIST QT_PLUGINS QT_QML QML_SOURCES SCANNER PATCHELF)
    if(NOT ${variable})
        message(FATAL_ERROR "ZenthoBundleDeploy: ${variable} is not set")
    endif()
endforeach()

set(contents "${BUNDLE}/Contents")
set(frameworks "${contents}/Frameworks")
set(launcher_library "libzentho-launcher.so")

# The Qt plugins a desktop launcher needs, by Qt's plugin folder layout:
#   platforms: X11, Wayland (with and without EGL) and offscreen (no display at all)
#   xcbglintegrations: OpenGL for Qt Quick on X11, through GLX or EGL
#   wayland-*: the xdg-shell every compositor speaks, client-side decorations where the
#              compositor draws none, and OpenGL on Wayland
#   tls: HTTPS through the system's OpenSSL 3
#   platforminputcontexts: compose and dead keys
set(plugins
    platforms/libqxcb.so
    platforms/libqwayland-egl.so
    platforms/libqwayland-generic.so
    platforms/libqoffscreen.so
    xcbglintegrations/libqxcb-glx-integration.so
    xcbglintegrations/libqxcb-egl-integration.so
    wayland-shell-integration/libxdg-shell.so
    wayland-decoration-client/libbradient.so
    wayland-graphics-integration-client/libqt-plugin-wayland-egl.so
    tls/libqopensslbackend.so
    platforminputcontexts/libcomposeplatforminputcontextplugin.so)

# What an earlier run put here goes first, so a library no longer needed does not linger.
file(GLOB previous "${frameworks}/*")
list(FILTER previous EXCLUDE REGEX "/${launcher_library}$")
if(previous)
    file(REMOVE ${previous})
endif()
file(REMOVE_RECURSE "${contents}/PlugIns" "${contents}/Resources/qml")

set(modules "")
foreach(plugin ${plugins})
    if(NOT EXISTS "${QT_PLUGINS}/${plugin}")
        message(FATAL_ERROR "ZenthoBundleDeploy: the Qt plugin ${QT_PLUGINS}/${plugin} is missing")
    endif()
    get_filename_component(kind "${plugin}" DIRECTORY)
    file(COPY "${QT_PLUGINS}/${plugin}" DESTINATION "${contents}/PlugIns/${kind}")
    list(APPEND modules "${contents}/PlugIns/${plugin}")
endforeach()

# The QML modules the window imports, each with the files of its own folder (its qmldir, plugin
# and type information; its sub-modules are modules of their own).
execute_process(COMMAND "${SCANNER}" -rootPath "${QML_SOURCES}" -importPath "${QT_QML}"
                OUTPUT_VARIABLE imports ERROR_QUIET RESULT_VARIABLE scanned)
if(NOT scanned EQUAL 0)
    message(FATAL_ERROR "ZenthoBundleDeploy: qmlimportscanner failed on ${QML_SOURCES}")
endif()
string(JSON count LENGTH "${imports}")
math(EXPR last "${count} - 1")
foreach(index RANGE ${last})
    string(JSON path ERROR_VARIABLE none GET "${imports}" ${index} path)
    string(JSON relative ERROR_VARIABLE none GET "${imports}" ${index} relativePath)
    if(NOT path OR NOT relative OR NOT EXISTS "${path}/qmldir")
        continue() # built into Qt Quick's own libraries, or an optional import that is not installed
    endif()
    file(GLOB files LIST_DIRECTORIES false "${path}/*")
    file(COPY ${files} DESTINATION "${contents}/Resources/qml/${relative}")
    file(GLOB module_plugins "${contents}/Resources/qml/${relative}/*.so")
    list(APPEND modules ${module_plugins})
endforeach()

# Every ELF file of the bundle, for the walk below and for its RUNPATH.
file(GLOB_RECURSE candidates LIST_DIRECTORIES false "${contents}/*")
set(elf_files "")
foreach(file ${candidates})
    if(IS_SYMLINK "${file}")
        continue()
    endif()
    file(READ "${file}" magic LIMIT 4 HEX)
    if(magic STREQUAL "7f454c46")
        list(APPEND elf_files "${file}")
    endif()
endforeach()

file(STRINGS "${SYSTEM_LIST}" system_patterns REGEX "^[^#]")
list(APPEND system_patterns ${EXTRA_SYSTEM})
set(executables ${elf_files})
list(REMOVE_ITEM executables ${modules} "${frameworks}/${launcher_library}")
file(GET_RUNTIME_DEPENDENCIES
    EXECUTABLES ${executables}
    LIBRARIES "${frameworks}/${launcher_library}"
    MODULES ${modules}
    RESOLVED_DEPENDENCIES_VAR needed
    UNRESOLVED_DEPENDENCIES_VAR unresolved
    CONFLICTING_DEPENDENCIES_PREFIX conflicting
    PRE_EXCLUDE_REGEXES ${system_patterns})
if(unresolved)
    message(FATAL_ERROR "ZenthoBundleDeploy: no library found for ${unresolved}")
endif()
foreach(library ${needed})
    get_filename_component(name "${library}" NAME)
    if(name STREQUAL launcher_library)
        continue()
    endif()
    # Under its soname, whatever chain of links leads to the file itself.
    file(REAL_PATH "${library}" real)
    file(COPY_FILE "${real}" "${frameworks}/${name}")
    list(APPEND elf_files "${frameworks}/${name}")
endforeach()

# Only the programs (the starter, the verifier, the seed game) name Contents/Frameworks, as a
# DT_RPATH: the loader searches a program's DT_RPATH for every library loaded into it that has no
# RUNPATH of its own, plugins loaded later included. The libraries and plugins then stay as
# Debian ships them: a RUNPATH added by patchelf moves their dynamic section to a writable page of
# its own, which the loader dirties, 4 KiB of private memory for each of them.
list(REMOVE_DUPLICATES elf_files)
foreach(file ${elf_files})
    if(STRIP)
        execute_process(COMMAND "${STRIP}" --strip-debug "${file}" RESULT_VARIABLE stripped)
    endif()
    list(FIND executables "${file}" program)
    if(program GREATER -1)
        get_filename_component(folder "${file}" DIRECTORY)
        file(RELATIVE_PATH up "${folder}" "${frameworks}")
        set(patch --force-rpath --set-rpath "\$ORIGIN/${up}")
    else()
        # A RUNPATH of its own would stop the programs' DT_RPATH from applying to its needs.
        execute_process(COMMAND "${PATCHELF}" --print-rpath "${file}" OUTPUT_VARIABLE own_path
                        OUTPUT_STRIP_TRAILING_WHITESPACE)
        if(own_path STREQUAL "")
            continue()
        endif()
        set(patch --remove-rpath)
    endif()
    execute_process(COMMAND "${PATCHELF}" ${patch} "${file}" RESULT_VARIABLE patched
                    ERROR_VARIABLE patch_error)
    if(NOT patched EQUAL 0)
        message(FATAL_ERROR "ZenthoBundleDeploy: patchelf ${file}: ${patch_error}")
    endif()
endforeach()

# Qt reads qt.conf beside the executable: plugins and QML from the bundle, never the system's.
file(WRITE "${contents}/MacOS/qt.conf"
"[Paths]
Prefix = ..
Libraries = Frameworks
Plugins = PlugIns
QmlImports = Resources/qml
")
