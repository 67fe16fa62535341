// The sample secure-object library, loaded as the agent loads the platform's:
// dlopen and a look-up of each function by name.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "zel_secure.h"

namespace {

const std::string kLibrary = std::string(ZEL_BINARY_DIR) + "/tools/secure/libzel_secure_sample.so";
const std::string kFullName(64, 'n');
const char* const kExports[] = {"DrmpSecureOpen",          "DrmpSecureClose",
                                "DrmpSecureOnProvision",   "DrmpSecureObjectDelete",
                                "DrmpSecureGetObjectName", "DrmpSecureGetIDConfig",
                                "DrmpSecureGetDeviceID",   "DrmpSecureGetUlpk"};

std::vector<uint8_t> Bytes(const std::string& text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

class SecureSampleTest : public ::testing::Test {
protected:
    void SetUp() override {
        handle_ = dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(nullptr, handle_) << dlerror();
        open_ = find<ZelSecureOpen>("DrmpSecureOpen");
        close_ = find<ZelSecureClose>("DrmpSecureClose");
        provision_ = find<ZelSecureOnProvision>("DrmpSecureOnProvision");
        delete_ = find<ZelSecureObjectDelete>("DrmpSecureObjectDelete");
        names_ = find<ZelSecureGetObjectName>("DrmpSecureGetObjectName");
        idConfig_ = find<ZelSecureGetIDConfig>("DrmpSecureGetIDConfig");
        deviceId_ = find<ZelSecureGetDeviceID>("DrmpSecureGetDeviceID");
        ulpk_ = find<ZelSecureGetUlpk>("DrmpSecureGetUlpk");
        setenv("ZEL_SECURE_SAMPLE_DIR", dir_.path().c_str(), 1);
        ASSERT_EQ(0, open_());
    }
    void TearDown() override {
        if (handle_ != nullptr) {
            close_();  // the library stays loaded between tests, and so would "opened"
            dlclose(handle_);
        }
        unsetenv("ZEL_SECURE_SAMPLE_DIR");
    }
    template <typename Function>
    Function find(const char* name) {
        void* symbol = dlsym(handle_, name);
        EXPECT_NE(nullptr, symbol) << name;
        return reinterpret_cast<Function>(symbol);
    }
    int32_t install(const char* name, const std::string& bytes, uint32_t type = 2) {
        uint32_t returned = 0;
        std::vector<uint8_t> object = Bytes(bytes);
        int32_t result = provision_(object.data(), static_cast<uint32_t>(object.size()), name,
                                    "id-1", type, &returned);
        EXPECT_EQ(result == 0 ? object.size() : 0u, returned);
        return result;
    }
    int32_t readNames(std::string& buffer, uint32_t& count, uint32_t size = 320,
                      uint32_t kind = 3) {
        buffer.assign(size, 'x');
        return names_(&buffer[0], size, &count, kind);
    }
    std::string object(const std::string& name) const { return dir_.file("objects/" + name); }

    ZelTest::TempDir dir_;
    void* handle_ = nullptr;
    ZelSecureOpen open_ = nullptr;
    ZelSecureClose close_ = nullptr;
    ZelSecureOnProvision provision_ = nullptr;
    ZelSecureObjectDelete delete_ = nullptr;
    ZelSecureGetObjectName names_ = nullptr;
    ZelSecureGetIDConfig idConfig_ = nullptr;
    ZelSecureGetDeviceID deviceId_ = nullptr;
    ZelSecureGetUlpk ulpk_ = nullptr;
};

TEST_F(SecureSampleTest, ExportsTheEightFunctionsAndNothingElse) {
    for (const char* name : kExports) {
        EXPECT_NE(nullptr, dlsym(handle_, name)) << name;
    }
    for (const char* hidden : {"readFile", "validName", "readBytes", "opened", "directory"}) {
        EXPECT_EQ(nullptr, dlsym(handle_, hidden)) << hidden;
    }
}

TEST_F(SecureSampleTest, UlpkGivesTheIndexAndTheKeyBytes) {
    struct Row {
        const char* file;
        bool ok;
        uint32_t index;
        std::vector<uint8_t> key;
    };
    const Row rows[] = {
        {"7 00112233445566778899aabbccddeeff\n",
         true,
         7,
         {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee,
          0xff}},
        {"0\tAbCd  \r\n", true, 0, {0xab, 0xcd}},
        {"4294967295 01", true, 4294967295u, {0x01}},
        {"4294967296 01", false, 0, {}},
        {"", false, 0, {}},
        {"7", false, 0, {}},
        {"7 ", false, 0, {}},
        {"-7 0011", false, 0, {}},
        {"x 0011", false, 0, {}},
        {"7 001", false, 0, {}},
        {"7 00zz", false, 0, {}},
        {"7 0011 22", false, 0, {}},
        {"7 0011\n8 2233\n", false, 0, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.file);
        ZelTest::WriteFile(dir_.file("ulpk"), row.file);
        uint32_t index = 99;
        std::vector<uint8_t> buffer(1024);
        uint32_t length = 1024;
        int32_t result = ulpk_(&index, buffer.data(), &length);
        if (!row.ok) {
            EXPECT_NE(0, result);
            continue;
        }
        ASSERT_EQ(0, result);
        EXPECT_EQ(row.index, index);
        buffer.resize(length);
        EXPECT_EQ(row.key, buffer);
    }
    // A buffer one byte short of the key.
    ZelTest::WriteFile(dir_.file("ulpk"), "7 001122");
    uint32_t index = 0;
    uint8_t buffer[3];
    uint32_t length = 2;
    EXPECT_NE(0, ulpk_(&index, buffer, &length));
    length = 3;
    EXPECT_EQ(0, ulpk_(&index, buffer, &length));
    unlink(dir_.file("ulpk").c_str());
    EXPECT_NE(0, ulpk_(&index, buffer, &length));
}

TEST_F(SecureSampleTest, NamesFillOneSlotEachAndAFullNameHasNoTerminator) {
    ZelTest::WriteFile(dir_.file("names"), "alpha\n\n" + kFullName + "\r\nbeta");
    std::string buffer;
    uint32_t count = 0;
    ASSERT_EQ(0, readNames(buffer, count));
    EXPECT_EQ(3u, count);
    EXPECT_EQ(std::string("alpha\0", 6), buffer.substr(0, 6));
    EXPECT_EQ(kFullName, buffer.substr(64, 64));
    EXPECT_EQ(std::string("beta\0", 5), buffer.substr(128, 5));
    // Unused slots are cleared.
    EXPECT_EQ(std::string(320 - 133, '\0'), buffer.substr(133));

    ZelTest::WriteFile(dir_.file("names"), "");
    ASSERT_EQ(0, readNames(buffer, count));
    EXPECT_EQ(0u, count);
}

TEST_F(SecureSampleTest, NamesAreRefusedBeyondTheLayout) {
    struct Row {
        const char* what;
        std::string file;
        uint32_t size;
        uint32_t kind;
    };
    const Row rows[] = {
        {"six names", "a\nb\nc\nd\ne\nf\n", 320, 3},
        {"a name of 65 bytes", kFullName + "n", 320, 3},
        {"a buffer of 319 bytes", "a", 319, 3},
        {"another kind", "a", 320, 2},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ZelTest::WriteFile(dir_.file("names"), row.file);
        std::string buffer;
        uint32_t count = 0;
        EXPECT_NE(0, readNames(buffer, count, row.size, row.kind));
    }
    unlink(dir_.file("names").c_str());
    std::string buffer;
    uint32_t count = 0;
    EXPECT_NE(0, readNames(buffer, count));
}

TEST_F(SecureSampleTest, InstallWritesAPrivateFileAndDeleteRemovesIt) {
    ASSERT_EQ(0, install("key.one", std::string("\0\x01secret", 8)));
    EXPECT_EQ(std::string("\0\x01secret", 8), ZelTest::ReadFile(object("key.one")));
    struct stat info {};
    ASSERT_EQ(0, stat(object("key.one").c_str(), &info));
    EXPECT_EQ(0600u, info.st_mode & 0777);
    // Installing again replaces the bytes, and a looser mode.
    chmod(object("key.one").c_str(), 0644);
    ASSERT_EQ(0, install("key.one", "new", 0x8002));
    EXPECT_EQ("new", ZelTest::ReadFile(object("key.one")));
    ASSERT_EQ(0, stat(object("key.one").c_str(), &info));
    EXPECT_EQ(0600u, info.st_mode & 0777);
    ASSERT_EQ(0, install(kFullName.c_str(), "full"));

    EXPECT_EQ(0, delete_("key.one", 0));
    EXPECT_NE(0, access(object("key.one").c_str(), F_OK));
    EXPECT_NE(0, delete_("key.one", 0));
    EXPECT_EQ("full", ZelTest::ReadFile(object(kFullName)));
}

TEST_F(SecureSampleTest, NamesThatLeaveTheObjectsDirectoryAreRefused) {
    ASSERT_EQ(0, install("kept", "bytes"));
    const std::string tooLong = kFullName + "n";
    const char* names[] = {"",        "..",   "../ulpk",       "a/b",  "/tmp/x",
                           ".hidden", "a..b", tooLong.c_str(), nullptr};
    for (const char* name : names) {
        SCOPED_TRACE(name == nullptr ? "(null)" : name);
        EXPECT_NE(0, install(name, "bytes"));
        EXPECT_NE(0, delete_(name, 0));
    }
    EXPECT_NE(0, delete_("kept", 1));  // flags other than 0
    EXPECT_NE(0, install("kept", "bytes", 0));
    uint32_t returned = 0;
    EXPECT_NE(0, provision_(nullptr, 0, "empty", "id", 2, &returned));
    uint8_t byte = 1;
    EXPECT_NE(0, provision_(&byte, 1, "kept", "id", 2, nullptr));
    EXPECT_EQ("bytes", ZelTest::ReadFile(object("kept")));
    EXPECT_NE(0, access(object("a").c_str(), F_OK));
}

TEST_F(SecureSampleTest, IdentityFilesAreCopiedWhenTheyFit) {
    struct Row {
        const char* file;
        ZelSecureGetIDConfig read;
    };
    const Row rows[] = {{"idconfig", idConfig_}, {"deviceid", deviceId_}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.file);
        uint8_t buffer[16] = {};
        uint32_t length = sizeof(buffer);
        EXPECT_NE(0, row.read(buffer, &length));  // absent
        ZelTest::WriteFile(dir_.file(row.file), std::string(row.file) + "\n");
        length = sizeof(buffer);
        ASSERT_EQ(0, row.read(buffer, &length));
        EXPECT_EQ(std::string(row.file) + "\n",
                  std::string(reinterpret_cast<char*>(buffer), length));
        length = 8;
        EXPECT_NE(0, row.read(buffer, &length));
        length = 9;
        EXPECT_EQ(0, row.read(buffer, &length));
    }
}

TEST_F(SecureSampleTest, NothingWorksUnopened) {
    ZelTest::WriteFile(dir_.file("ulpk"), "1 00");
    ZelTest::WriteFile(dir_.file("names"), "a");
    ZelTest::WriteFile(dir_.file("idconfig"), "i");
    ZelTest::WriteFile(dir_.file("deviceid"), "d");
    ASSERT_EQ(0, install("kept", "bytes"));
    ASSERT_EQ(0, close_());

    uint8_t buffer[1024];
    uint32_t length = sizeof(buffer);
    uint32_t index = 0;
    uint32_t count = 0;
    std::string names;
    EXPECT_NE(0, close_());
    EXPECT_NE(0, install("other", "bytes"));
    EXPECT_NE(0, delete_("kept", 0));
    EXPECT_NE(0, readNames(names, count));
    EXPECT_NE(0, idConfig_(buffer, &length));
    EXPECT_NE(0, deviceId_(buffer, &length));
    EXPECT_NE(0, ulpk_(&index, buffer, &length));
    EXPECT_EQ("bytes", ZelTest::ReadFile(object("kept")));

    // Open wants the directory.
    for (const char* value : {"", static_cast<const char*>(nullptr)}) {
        if (value == nullptr) {
            unsetenv("ZEL_SECURE_SAMPLE_DIR");
        } else {
            setenv("ZEL_SECURE_SAMPLE_DIR", value, 1);
        }
        EXPECT_NE(0, open_());
        EXPECT_NE(0, ulpk_(&index, buffer, &length));
    }
}

}  // namespace
