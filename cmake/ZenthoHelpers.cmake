# The launcher's version lives in one tiny object so that tests can link the same core into a
# launcher that believes it is another version, without compiling the core twice.
function(zentho_version_object name version)
    add_library(${name} OBJECT ${PROJECT_SOURCE_DIR}/src/ZenthoLauncher/identity/LauncherVersion.cpp)
    target_compile_definitions(${name} PRIVATE ZENTHO_LAUNCHER_VERSION="${version}")
    target_link_libraries(${name} PRIVATE zentho_identity)
endfunction()

# Registers one QtTest case: SOURCE (by default <Name>.cpp) becomes the executable <Name> and the
# CTest test <Name>. LIBS are libraries to link besides the test support library.
function(zentho_add_test name)
    cmake_parse_arguments(ARG "" "TIMEOUT;SOURCE" "LIBS;LABELS" ${ARGN})
    if(NOT ARG_SOURCE)
        set(ARG_SOURCE ${name}.cpp)
    endif()
    add_executable(${name} ${ARG_SOURCE})
    target_link_libraries(${name} PRIVATE zentho_test_support zentho_version_default
                          zentho_manifest_keys_default ${ARG_LIBS})
    add_test(NAME ${name} COMMAND ${name})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 300)
    endif()
    set_tests_properties(${name} PROPERTIES
        TIMEOUT ${ARG_TIMEOUT}
        LABELS "${ARG_LABELS}"
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;QT_QUICK_BACKEND=software;ZENTHO_BUILD_DIR=${CMAKE_BINARY_DIR};ZENTHO_SOURCE_DIR=${PROJECT_SOURCE_DIR};ZENTHO_FRESH_SYSTEMS_DIR=${ZENTHO_FRESH_SYSTEMS_DIR}")
endfunction()

# Writes <bundle_dir>/Contents/Info.json, {"version":"<version>"}, before `target` links, so the
# seal made after the link covers it: the bundle says which launcher it is, from the same value
# that is compiled into it.
function(zentho_bundle_info target bundle_dir version)
    if(NOT version MATCHES "^[A-Za-z0-9][A-Za-z0-9._+-]*$")
        message(FATAL_ERROR "the launcher version \"${version}\" may hold only letters, digits "
                            "and . _ + -, starting with a letter or digit")
    endif()
    set(generated "${CMAKE_CURRENT_BINARY_DIR}/${target}-Info.json")
    file(CONFIGURE OUTPUT "${generated}" CONTENT "{\"version\":\"${version}\"}\n" @ONLY)
    set(info "${bundle_dir}/Contents/Info.json")
    add_custom_command(OUTPUT "${info}"
        COMMAND ${CMAKE_COMMAND} -E copy "${generated}" "${info}"
        DEPENDS "${generated}"
        VERBATIM)
    add_custom_target(${target}-info DEPENDS "${info}")
    add_dependencies(${target} ${target}-info)
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${info}")
endfunction()

# A launcher linked from the same core as the real one under another version or other trusted
# manifest keys, laid out as a bundle like the real one: its Info.json, a copy of the verifier
# target VERIFIER beside it and the stand-in game target SEED as its seed runtime. It is left
# unsealed; whoever publishes it seals it, as a release engineer would.
#
#   zentho_launcher_variant(target bundle_dir VERSION v VERIFIER t SEED t [MANIFEST_KEYS pem...])
function(zentho_launcher_variant target bundle_dir)
    cmake_parse_arguments(ARG "" "VERSION;VERIFIER;SEED" "MANIFEST_KEYS" ${ARGN})
    zentho_version_object(${target}_version "${ARG_VERSION}")
    set(keys zentho_manifest_keys_default)
    if(ARG_MANIFEST_KEYS)
        set(keys ${target}_manifest_keys)
        zentho_manifest_keys_object(${keys} ${ARG_MANIFEST_KEYS})
    endif()
    add_executable(${target} ${ZENTHO_MAIN_SOURCE})
    target_link_libraries(${target} PRIVATE zentho_app ${target}_version ${keys})
    target_include_directories(${target} PRIVATE "${ZENTHO_TRUSTED_KEY_HEADER_DIR}")
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME ZenthoLauncher
        RUNTIME_OUTPUT_DIRECTORY "${bundle_dir}/Contents/MacOS")
    add_dependencies(${target} ${ARG_VERIFIER} ${ARG_SEED})
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_COMMAND} -E copy "$<TARGET_FILE:${ARG_VERIFIER}>"
                "${bundle_dir}/Contents/MacOS/zentho-codesign"
        COMMAND ${CMAKE_COMMAND} -E make_directory "${bundle_dir}/Contents/Resources/SeedRuntime"
        COMMAND ${CMAKE_COMMAND} -E copy "$<TARGET_FILE:${ARG_SEED}>"
                "${bundle_dir}/Contents/Resources/SeedRuntime/zentho"
        VERBATIM)
    zentho_bundle_info(${target} "${bundle_dir}" "${ARG_VERSION}")
endfunction()
