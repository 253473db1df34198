#include "CfgTestUtil.h"

#include "md5.h"

#include <cstdio>

#include <gtest/gtest.h>

namespace testsupport {

std::ostream &operator<<(std::ostream &os, const Entry &e) {
    auto show = [&](const char *name, const std::optional<std::string> &v) {
        os << name << '=' << (v ? "\"" + *v + "\"" : std::string("NULL")) << ' ';
    };
    os << "{ ";
    show("section", e.section);
    show("id", e.id);
    show("value", e.value);
    show("comment", e.comment);
    return os << '}';
}

std::vector<Entry> entriesOf(const TWK_CfgHandle *h) {
    std::vector<Entry> out;
    for (uint32_t i = 0; i < h->numEntries; i++) {
        const TWK_CfgEntry &e = h->entries[i];
        out.push_back({opt(e.section), opt(e.id), opt(e.value), opt(e.comment)});
    }
    return out;
}

Handle openFile(const std::string &path) {
    TWK_CfgHandle *h = nullptr;
    EXPECT_EQ(TWK_Cfg_init(&h, path.c_str()), 0) << "cannot load " << path;
    return Handle(h);
}

Handle loadText(const TempDir &dir, std::string_view text, const std::string &name) {
    const std::string path = dir / name;
    writeFile(path, text);
    return openFile(path);
}

std::string hex(const unsigned char digest[16]) {
    char out[33];
    for (int i = 0; i < 16; i++) std::snprintf(out + 2 * i, 3, "%02x", digest[i]);
    return out;
}

std::string md5Hex(const std::string &bytes) {
    TWK_MD5Context ctx;
    unsigned char d[16];
    TWK_MD5Init(&ctx);
    TWK_MD5Update(&ctx, bytes.data(), static_cast<uint32_t>(bytes.size()));
    TWK_MD5Final(d, &ctx);
    return hex(d);
}

} // namespace testsupport
