# Bundle sealing: the verifier that ships in the bundle, the key it trusts, and the seal the
# build puts on the bundle it lays out.
#
# ZENTHO_SIGNING_PUBLIC_KEY  PEM public key compiled into the bundle's verifier: the launcher
#                            accepts only updates sealed with its private half. Empty: a
#                            development key pair is made in <build>/signing/ on first configure.
# ZENTHO_SIGNING_KEY         PEM private key the build seals its own bundle with. Empty: the
#                            development key when that is the trusted one; with a release public
#                            key and no private key the built bundle is left unsealed and the
#                            release is sealed later with `zentho-release sign-bundle`.
#
# A second verifier, <build>/signing/test-verifier/zentho-codesign, trusts a test key made in
# <build>/signing/test.key; the tests seal their bundles with it and never need the real key.

set(ZENTHO_SIGNING_PUBLIC_KEY "" CACHE FILEPATH
    "PEM public key the launcher trusts for its own updates (empty: a development key)")
set(ZENTHO_SIGNING_KEY "" CACHE FILEPATH
    "PEM private key that seals the built bundle (empty: the development key, when trusted)")

find_program(ZENTHO_OPENSSL openssl REQUIRED)
set(ZENTHO_SIGNING_DIR "${CMAKE_BINARY_DIR}/signing")
file(MAKE_DIRECTORY "${ZENTHO_SIGNING_DIR}")

# Makes <private> and <private>.pub with the openssl command line, once.
function(zentho_make_key_pair private)
    if(NOT EXISTS "${private}")
        execute_process(COMMAND "${ZENTHO_OPENSSL}" genpkey -algorithm ed25519 -out "${private}"
                        RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
        if(NOT rc EQUAL 0)
            message(FATAL_ERROR "could not make the key ${private}: ${err}")
        endif()
        file(CHMOD "${private}" PERMISSIONS OWNER_READ OWNER_WRITE)
    endif()
    if(NOT EXISTS "${private}.pub")
        execute_process(COMMAND "${ZENTHO_OPENSSL}" pkey -in "${private}" -pubout -out "${private}.pub"
                        RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
        if(NOT rc EQUAL 0)
            message(FATAL_ERROR "could not write the public key of ${private}: ${err}")
        endif()
    endif()
endfunction()

zentho_make_key_pair("${ZENTHO_SIGNING_DIR}/development.key")
zentho_make_key_pair("${ZENTHO_SIGNING_DIR}/test.key")

if(ZENTHO_SIGNING_PUBLIC_KEY)
    set(ZENTHO_TRUSTED_PUBLIC_KEY "${ZENTHO_SIGNING_PUBLIC_KEY}")
    set(ZENTHO_BUNDLE_SIGNING_KEY "${ZENTHO_SIGNING_KEY}")
else()
    set(ZENTHO_TRUSTED_PUBLIC_KEY "${ZENTHO_SIGNING_DIR}/development.key.pub")
    set(ZENTHO_BUNDLE_SIGNING_KEY "${ZENTHO_SIGNING_DIR}/development.key")
    if(ZENTHO_SIGNING_KEY)
        set(ZENTHO_BUNDLE_SIGNING_KEY "${ZENTHO_SIGNING_KEY}")
    endif()
endif()

# The sealing code, free of Qt, shared by the verifiers and zentho-release. The launcher core
# compiles the same files itself.
set(ZENTHO_UPDATE_DIR "${PROJECT_SOURCE_DIR}/src/ZenthoLauncher/update")
add_library(zentho_bundle_signature STATIC
    "${ZENTHO_UPDATE_DIR}/BundleListing.cpp"
    "${ZENTHO_UPDATE_DIR}/BundleSignature.cpp"
    "${ZENTHO_UPDATE_DIR}/BundleVerifierCommand.cpp"
    "${ZENTHO_UPDATE_DIR}/Ed25519Key.cpp")
target_include_directories(zentho_bundle_signature PUBLIC "${PROJECT_SOURCE_DIR}/src/ZenthoLauncher")
target_link_libraries(zentho_bundle_signature PUBLIC OpenSSL::Crypto)
set_target_properties(zentho_bundle_signature PROPERTIES AUTOMOC OFF)

# A verifier program that trusts the public key in `public_key`, built into `output_dir`.
function(zentho_codesign_verifier target public_key output_dir)
    file(READ "${public_key}" pem)
    string(STRIP "${pem}" pem)
    string(REPLACE "\n" "\\n" pem "${pem}")
    set(header_dir "${CMAKE_CURRENT_BINARY_DIR}/${target}-key")
    file(CONFIGURE OUTPUT "${header_dir}/TrustedSigningKey.h" CONTENT
         "#pragma once\n// Generated from ${public_key} by the build.\ninline constexpr const char kTrustedPublicKeyPem[] = \"${pem}\\n\";\n")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${public_key}")
    add_executable(${target} "${PROJECT_SOURCE_DIR}/tools/codesign/ZenthoCodesign.cpp")
    target_include_directories(${target} PRIVATE "${header_dir}")
    target_link_libraries(${target} PRIVATE zentho_bundle_signature)
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME zentho-codesign
        AUTOMOC OFF
        RUNTIME_OUTPUT_DIRECTORY "${output_dir}")
endfunction()

zentho_codesign_verifier(zentho-codesign "${ZENTHO_TRUSTED_PUBLIC_KEY}" "${ZENTHO_BUNDLE_DIR}/Contents/MacOS")
# The launcher executable verifies with the same key when no verifier sits beside it.
set(ZENTHO_TRUSTED_KEY_HEADER_DIR "${CMAKE_CURRENT_BINARY_DIR}/zentho-codesign-key"
    CACHE INTERNAL "Folder of the generated TrustedSigningKey.h")
target_include_directories(ZenthoLauncher PRIVATE "${ZENTHO_TRUSTED_KEY_HEADER_DIR}")
zentho_codesign_verifier(zentho-codesign-testkey "${ZENTHO_SIGNING_DIR}/test.key.pub"
                         "${ZENTHO_SIGNING_DIR}/test-verifier")

# The bundle is sealed last, after the launcher links. Whatever else lands in the bundle must be
# built before it and named in LINK_DEPENDS, so that a change to it relinks the launcher and the
# seal is made again over the new contents.
add_dependencies(ZenthoLauncher zentho-codesign zentho-release)
set_property(TARGET ZenthoLauncher APPEND PROPERTY LINK_DEPENDS
    "${ZENTHO_BUNDLE_DIR}/Contents/MacOS/zentho-codesign"
    "${ZENTHO_BUNDLE_DIR}/Contents/Resources/SeedRuntime/zentho")
if(ZENTHO_BUNDLE_SIGNING_KEY)
    add_custom_command(TARGET ZenthoLauncher POST_BUILD
        COMMAND "$<TARGET_FILE:zentho-release>" sign-bundle --key "${ZENTHO_BUNDLE_SIGNING_KEY}"
                "${ZENTHO_BUNDLE_DIR}"
        COMMENT "Sealing ZenthoLauncher.app"
        VERBATIM)
endif()

# The tests run the signing tools and the sealed bundle, so they are built first. The tests are
# defined after this file is read, hence the deferred call.
function(zentho_signing_tests_depend)
    foreach(test TestBundleSignature TestFinishScript TestLauncherUpdater TestSelfUpdateModel)
        if(TARGET ${test})
            add_dependencies(${test} ZenthoLauncher zentho-release zentho-codesign-testkey)
        endif()
    endforeach()
endfunction()
cmake_language(DEFER DIRECTORY "${PROJECT_SOURCE_DIR}" CALL zentho_signing_tests_depend)
