#pragma once

// The bundle verifier's command line, shared by zentho-codesign and the launcher executable
// itself (which verifies this way when started as "ZenthoLauncher --codesign ...", so a launcher
// that runs without its verifier beside it still has one):
//
//   --verify --deep --strict BUNDLE.app
//
// `argv[0]` is the program's name. Exit status 0: the bundle is sealed by one of the keys in
// `trustedPublicKeysPem` (one or more PEM public keys, one after the other) and nothing in it
// differs from the seal. 1: it is not, with the reason on one line of standard error. 2: the
// command line is not the one above. Every check is deep and strict; the options are there so
// the command reads the same as the platform tool it stands in for.
int runBundleVerifier(int argc, char** argv, const char* trustedPublicKeysPem);
