// A private key folder per test, named to the library through the environment,
// and a library left stopped at the end whatever the test did.
#ifndef IDENTIFY_TEST_ENV_H
#define IDENTIFY_TEST_ENV_H

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <identify/Identify.h>

class IdentifyTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = ::testing::TempDir() + "identify-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_dir = pattern;
        setenv("IDENTIFY_KEY_FILE", KeyPath().c_str(), 1);
        unsetenv("IDENTIFY_TOKEN_TTL");
    }

    void TearDown() override
    {
        while (Identify_Fini() == 0) {
        }
        std::filesystem::remove_all(m_dir);
    }

    std::string KeyPath(const char* name = "key") const { return m_dir + "/" + name; }

    static std::vector<unsigned char> IssueToken()
    {
        std::vector<unsigned char> token(128);
        int length = static_cast<int>(token.size());
        EXPECT_EQ(Identify_Apply(0, 0, token.data(), &length), 0);
        token.resize(static_cast<size_t>(length));
        return token;
    }

    static int CheckToken(const std::vector<unsigned char>& token)
    {
        return Identify_Check(0, 0, token.data(), static_cast<int>(token.size()));
    }

    std::string m_dir;
};

#endif  // IDENTIFY_TEST_ENV_H
