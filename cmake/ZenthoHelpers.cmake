# The launcher's version lives in one tiny object so that tests can link the same core into a
# launcher that believes it is another version, without compiling the core twice.
function(zentho_version_object name version)
    add_library(${name} OBJECT ${PROJECT_SOURCE_DIR}/src/ZenthoLauncher/LauncherVersion.cpp)
    target_compile_definitions(${name} PRIVATE ZENTHO_LAUNCHER_VERSION="${version}")
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src/ZenthoLauncher)
    target_link_libraries(${name} PRIVATE Qt6::Core)
endfunction()

# Registers one QtTest case: tests/<Name>.cpp becomes the executable <Name> and the CTest test
# <Name>. Extra arguments are libraries to link besides the test support library.
function(zentho_add_test name)
    cmake_parse_arguments(ARG "" "TIMEOUT" "LIBS;LABELS" ${ARGN})
    add_executable(${name} ${name}.cpp)
    target_link_libraries(${name} PRIVATE zentho_test_support zentho_version_default ${ARG_LIBS})
    add_test(NAME ${name} COMMAND ${name})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 300)
    endif()
    set_tests_properties(${name} PROPERTIES
        TIMEOUT ${ARG_TIMEOUT}
        LABELS "${ARG_LABELS}"
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;QT_QUICK_BACKEND=software;ZENTHO_BUILD_DIR=${CMAKE_BINARY_DIR};ZENTHO_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
endfunction()
