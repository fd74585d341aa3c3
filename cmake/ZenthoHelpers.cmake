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

# Sets `out_var` to a file holding a bundle's Contents/Info.json, {"version":"<version>"}: the
# bundle says which launcher it is, from the same value that is compiled into it, and the seal
# made over the bundle covers it.
function(zentho_bundle_info version out_var)
    if(NOT version MATCHES "^[A-Za-z0-9][A-Za-z0-9._+-]*$")
        message(FATAL_ERROR "the launcher version \"${version}\" may hold only letters, digits "
                            "and . _ + -, starting with a letter or digit")
    endif()
    set(generated "${CMAKE_BINARY_DIR}/bundle-info/${version}/Info.json")
    file(CONFIGURE OUTPUT "${generated}" CONTENT "{\"version\":\"${version}\"}\n" @ONLY)
    set(${out_var} "${generated}" PARENT_SCOPE)
endfunction()
