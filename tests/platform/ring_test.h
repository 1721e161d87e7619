// A key ring in a folder of its own, as the tests of the security layer have it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/sdsecurity/sdsecurity.h"
#include "tests/support/support.h"

// What a ring of these tests opens, and what stands in it. sdsecurity_test.cpp tells how it was made.
inline const std::string kEnvelope = "v13EvHVH4144egoaKjpKWmp6ipqquWeQ9eRbxtzQbFBlq8RzUfLd7gs9zoWM9O";
inline const std::string kPlain("pass\0word", 9);

class RingTest : public testing::Test {
protected:
    using State = sd::SDSecurity::KeyRingState;

    RingTest() { beginAnew(); }
    // As it comes up in a process that has opened nothing yet.
    void beginAnew() { security.SetKeyRingFolder(folder.path()); }
    void writeRing(const std::string& text, unsigned mode = 0600) {
        std::filesystem::remove(ring);  // a file system may wait for the disk where one is overwritten
        test::writeFile(ring, text, mode);
        beginAnew();
    }
    State state() { return security.CheckKeyRing().state; }
    std::string seal(const std::string& plain) { return security.FastEncrypt(plain); }
    std::string open(const std::string& text) { return security.FastDecrypt(text); }

    test::ScopedEnv noCredentials{"CREDENTIALS_DIRECTORY", nullptr};
    test::TempDir folder;
    test::LogCapture log;
    const std::string ring = folder / "sdsecurity.keys";
    sd::SDSecurity& security = *sd::SDSecurity::GetInstance();
};
