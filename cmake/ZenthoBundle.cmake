# The launcher bundle as players get it: self-contained, so it runs wherever it is unpacked on
# any current x86-64 Linux desktop. Every bundle the build lays out, the real one and the tests'
# variants alike, comes from zentho_launcher_bundle().
#
#   <bundle>.app/Contents/MacOS/ZenthoLauncher        the bundle start (src/BundleStart): loads
#                                                     the launcher library below
#   <bundle>.app/Contents/MacOS/zentho-codesign       the seal verifier
#   <bundle>.app/Contents/MacOS/qt.conf               Qt's plugins and QML from the bundle
#   <bundle>.app/Contents/Frameworks/                 libzentho-launcher.so and every library
#                                                     outside data/system-libraries.txt
#   <bundle>.app/Contents/PlugIns/, Resources/qml/    Qt plugins and QML modules
#   <bundle>.app/Contents/Resources/SeedRuntime/zentho  the seed game
#   <bundle>.app/Contents/Resources/trusted-seal-keys.pem  the public keys its verifier trusts:
#                                                     publish checks the next launcher's seal
#                                                     against the published launcher's
#   <bundle>.app/Contents/Info.json                   {"version": ...}
#   <bundle>.app/Contents/_CodeSignature/Signature    the seal over all of the above

set(ZENTHO_SYSTEM_LIBRARIES "${PROJECT_SOURCE_DIR}/data/system-libraries.txt")
# A sanitizer build's runtimes come from the compiler on the build machine; such a bundle is for
# the tests, never for players.
set(ZENTHO_EXTRA_SYSTEM_LIBRARIES "")
if(SANITIZE)
    set(ZENTHO_EXTRA_SYSTEM_LIBRARIES "^libasan\\.so\\.[0-9]+$" "^libubsan\\.so\\.[0-9]+$")
endif()

find_program(ZENTHO_PATCHELF patchelf REQUIRED)
set(ZENTHO_QMLIMPORTSCANNER "${QT6_INSTALL_PREFIX}/${QT6_INSTALL_LIBEXECS}/qmlimportscanner")
# Players get the bundle without debug sections; a build with debug information keeps them.
set(ZENTHO_BUNDLE_STRIP "")
if(CMAKE_BUILD_TYPE MATCHES "^(Release|MinSizeRel)$")
    set(ZENTHO_BUNDLE_STRIP "${CMAKE_STRIP}")
endif()

# zentho_launcher_bundle(<target> <bundle_dir> VERSION <v> VERIFIER <target> SEED <target>
#                        [MANIFEST_KEYS <pem>...] [SEAL_KEY <key>] [ALL] [STRIPPED])
#
# Lays out <bundle_dir> from the launcher library linked as version <v> (trusting MANIFEST_KEYS
# for its manifests, or the build's own), the verifier target VERIFIER, the stand-in game target
# SEED as its seed runtime, its Info.json, and whatever all of them need from outside the system
# set. With SEAL_KEY the bundle is sealed, after a check that it needs nothing outside the system
# set and no newer GNU C library than ZENTHO_GLIBC_FLOOR; without it, it is left unsealed for
# whoever publishes it. Building <target> lays out the whole bundle; ALL builds it by default.
# STRIPPED takes the debug sections out whatever the build type: the tests' variants are packed
# and unpacked again and again, and their debug information would only slow that down.
function(zentho_launcher_bundle target bundle_dir)
    cmake_parse_arguments(ARG "ALL;STRIPPED" "VERSION;VERIFIER;SEED;SEAL_KEY" "MANIFEST_KEYS" ${ARGN})
    set(strip "${ZENTHO_BUNDLE_STRIP}")
    if(ARG_STRIPPED)
        set(strip "${CMAKE_STRIP}")
    endif()
    set(version zentho_version_default)
    if(NOT ARG_VERSION STREQUAL ZENTHO_LAUNCHER_VERSION)
        set(version ${target}_version)
        zentho_version_object(${version} "${ARG_VERSION}")
    endif()
    set(keys zentho_manifest_keys_default)
    if(ARG_MANIFEST_KEYS)
        set(keys ${target}_manifest_keys)
        zentho_manifest_keys_object(${keys} ${ARG_MANIFEST_KEYS})
    endif()

    set(library ${target}-library)
    add_library(${library} SHARED EXCLUDE_FROM_ALL ${ZENTHO_MAIN_SOURCE})
    target_link_libraries(${library} PRIVATE zentho_app ${version} ${keys})
    target_include_directories(${library} PRIVATE "${ZENTHO_TRUSTED_KEY_HEADER_DIR}")
    set_target_properties(${library} PROPERTIES
        OUTPUT_NAME zentho-launcher
        LIBRARY_OUTPUT_DIRECTORY "${bundle_dir}/Contents/Frameworks")

    zentho_bundle_info("${ARG_VERSION}" info)
    get_target_property(trusted_keys ${ARG_VERIFIER} ZENTHO_TRUSTED_KEYS_PEM)
    set(seal_commands "")
    set(seal_depends "")
    if(ARG_SEAL_KEY)
        set(seal_commands COMMAND "$<TARGET_FILE:zentho-release>" sign-bundle --key "${ARG_SEAL_KEY}"
                                  "${bundle_dir}")
        set(seal_depends zentho-release "${ARG_SEAL_KEY}")
    endif()
    set(contents "${bundle_dir}/Contents")
    set(stamp "${CMAKE_CURRENT_BINARY_DIR}/${target}.laid-out")
    add_custom_command(OUTPUT "${stamp}"
        COMMAND ${CMAKE_COMMAND} -E make_directory "${contents}/MacOS" "${contents}/Resources/SeedRuntime"
        COMMAND ${CMAKE_COMMAND} -E copy "$<TARGET_FILE:zentho-bundle-start>" "${contents}/MacOS/ZenthoLauncher"
        COMMAND ${CMAKE_COMMAND} -E copy "$<TARGET_FILE:${ARG_VERIFIER}>" "${contents}/MacOS/zentho-codesign"
        COMMAND ${CMAKE_COMMAND} -E copy "$<TARGET_FILE:${ARG_SEED}>" "${contents}/Resources/SeedRuntime/zentho"
        COMMAND ${CMAKE_COMMAND} -E copy "${info}" "${contents}/Info.json"
        COMMAND ${CMAKE_COMMAND} -E copy "${trusted_keys}" "${contents}/Resources/trusted-seal-keys.pem"
        COMMAND ${CMAKE_COMMAND}
                "-DBUNDLE=${bundle_dir}"
                "-DSYSTEM_LIST=${ZENTHO_SYSTEM_LIBRARIES}"
                "-DEXTRA_SYSTEM=${ZENTHO_EXTRA_SYSTEM_LIBRARIES}"
                "-DQT_PLUGINS=${QT6_INSTALL_PREFIX}/${QT6_INSTALL_PLUGINS}"
                "-DQT_QML=${QT6_INSTALL_PREFIX}/${QT6_INSTALL_QML}"
                "-DQML_SOURCES=${PROJECT_SOURCE_DIR}/src/ZenthoLauncher/ui"
                "-DSCANNER=${ZENTHO_QMLIMPORTSCANNER}"
                "-DPATCHELF=${ZENTHO_PATCHELF}"
                "-DSTRIP=${strip}"
                -P "${PROJECT_SOURCE_DIR}/cmake/ZenthoBundleDeploy.cmake"
        ${seal_commands}
        COMMAND ${CMAKE_COMMAND} -E touch "${stamp}"
        DEPENDS ${library} zentho-bundle-start ${ARG_VERIFIER} ${ARG_SEED} "${info}" "${trusted_keys}"
                ${seal_depends}
                "${ZENTHO_SYSTEM_LIBRARIES}" "${PROJECT_SOURCE_DIR}/cmake/ZenthoBundleDeploy.cmake"
        COMMENT "Laying out ${bundle_dir}"
        VERBATIM)
    if(ARG_ALL)
        add_custom_target(${target} ALL DEPENDS "${stamp}")
    else()
        add_custom_target(${target} DEPENDS "${stamp}")
    endif()
endfunction()
