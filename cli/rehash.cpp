// qxcrl rehash: links a directory's CRLs under their issuer's hash, HASH.rN,
// as `openssl rehash` does, in the library's naming or in OpenSSL's.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "commands.h"
#include "crl_input.h"
#include "errors.h"
#include "session.h"

namespace qxcli {

namespace {

constexpr char usage[] = "qxcrl rehash DIR [--openssl] [--verbose] [--trace LEVEL]";

// Names a rehash makes: eight lower-case hex digits, ".r", a number.
bool hash_link_name(const std::string& name) {
    if (name.size() < 11 || name.compare(8, 2, ".r") != 0)
        return false;
    return std::all_of(name.begin(), name.begin() + 8,
                       [](char c) {
                           return std::isxdigit(static_cast<unsigned char>(c)) &&
                                  !std::isupper(static_cast<unsigned char>(c));
                       }) &&
           std::all_of(name.begin() + 10, name.end(),
                       [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
}

struct Entry {
    std::string name;
    bool symlink = false;
    bool regular = false;
    std::string target; // of a symbolic link
};

int list_directory(const std::string& dir, std::vector<Entry>& entries) {
    DIR* stream = opendir(dir.c_str());
    if (stream == nullptr)
        return report("reading the directory " + dir, QXL_ERR_FILE, std::strerror(errno));
    while (const dirent* found = readdir(stream)) {
        Entry entry;
        entry.name = found->d_name;
        if (entry.name == "." || entry.name == "..")
            continue;
        const std::string path = dir + "/" + entry.name;
        struct stat info {};
        if (lstat(path.c_str(), &info) != 0)
            continue;
        entry.symlink = S_ISLNK(info.st_mode);
        entry.regular = S_ISREG(info.st_mode);
        if (entry.symlink) {
            std::vector<char> target(4096);
            const ssize_t length = readlink(path.c_str(), target.data(), target.size());
            if (length > 0)
                entry.target.assign(target.data(), static_cast<size_t>(length));
        }
        entries.push_back(std::move(entry));
    }
    closedir(stream);
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return a.name < b.name; });
    return 0;
}

// The hash part of the CRL's name ("1a2b3c4d"), or "" when it is not named:
// a file that holds no CRL (a certificate, say) or several, one that cannot
// be read (reported), or, in the library's naming, a CRL the library refuses
// (a note says so).
std::string hash_of(Session& session, const std::string& path, bool openssl,
                    std::vector<unsigned char>& fingerprint) {
    std::vector<CrlBytes> crls;
    if (read_crl_file(session, path, crls) != 0 || crls.size() != 1)
        return "";
    QxCrlView* view = nullptr;
    if (qxview_crl(session.ctx(), crls[0].der.data(), static_cast<uint32_t>(crls[0].der.size()),
                   &view) != 0)
        return "";
    fingerprint.assign(view->sha256, view->sha256 + sizeof view->sha256);
    char text[12] = {};
    std::snprintf(text, sizeof text, "%08x", view->opensslIssuerHash);
    qxumfree(session.ctx(), &view);
    if (openssl)
        return text;
    Crl crl(session.ctx());
    Name issuer;
    if (qxcrl_CreateCtx(session.ctx(), &crl.object, crls[0].der.data(),
                        static_cast<uint32_t>(crls[0].der.size())) != 0 ||
        qxcrl_GetIssuerName(session.ctx(), crl.object, &issuer.name) != 0 ||
        qxcrl_FileForIssuer(session.ctx(), issuer.name, nullptr, text) != 0) {
        std::fprintf(stderr, "qxcrl: note: %s is not linked: the library does not take it\n",
                     path.c_str());
        return "";
    }
    return std::string(text, 8);
}

} // namespace

int rehash_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2, {{}, {"--openssl", "--verbose"}});
    if (arguments.help()) {
        std::printf(
            "usage: %s\n"
            "Links every CRL file of DIR (a file holding one CRL, DER or PEM) under its issuer's "
            "hash as a symbolic link HASH.rN, N counting from 0 among CRLs of one issuer, as "
            "openssl rehash does. Every symbolic link of DIR named HASH.rN is taken as one a "
            "rehash made: it is kept when still right, else removed. Running it again changes "
            "nothing; identical CRLs get one link.\n"
            "  --openssl      OpenSSL's naming, the hash `openssl crl -hash` prints (default: "
            "the library's, as qxcrl hash prints it)\n"
            "  --verbose      print each link as HASH.rN -> FILE (default: quiet)\n"
            "%s"
            "Exit 0 when DIR is linked, %d on a failure, %d on a usage mistake.\n",
            usage, trace_help, failure_exit, usage_exit);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), usage);
    if (arguments.positionals().size() != 1)
        return usage_error("rehash needs one directory", usage);
    const std::string& dir = arguments.positionals()[0];
    Session session;
    if (const uint32_t status = session.open(arguments))
        return report("making the layer", status);
    std::vector<Entry> entries;
    if (const int failed = list_directory(dir, entries))
        return failed;

    // The links the directory should hold, name to target.
    std::map<std::string, std::string> wanted;
    std::map<std::string, std::vector<std::vector<unsigned char>>> seen; // per hash
    for (const Entry& entry : entries) {
        if (!entry.regular)
            continue;
        std::vector<unsigned char> fingerprint;
        const std::string hash =
            hash_of(session, dir + "/" + entry.name, arguments.has("--openssl"), fingerprint);
        if (hash.empty())
            continue;
        std::vector<std::vector<unsigned char>>& same = seen[hash];
        if (std::find(same.begin(), same.end(), fingerprint) != same.end())
            continue;
        wanted[hash + ".r" + std::to_string(same.size())] = entry.name;
        same.push_back(fingerprint);
    }
    for (const Entry& entry : entries) {
        if (!entry.symlink || !hash_link_name(entry.name))
            continue;
        const auto found = wanted.find(entry.name);
        if (found != wanted.end() && found->second == entry.target) {
            wanted.erase(found); // already right
            continue;
        }
        const std::string path = dir + "/" + entry.name;
        if (unlink(path.c_str()) != 0)
            return report("removing the stale link " + path, QXL_ERR_FILE, std::strerror(errno));
    }
    for (const auto& [name, target] : wanted) {
        const std::string path = dir + "/" + name;
        if (symlink(target.c_str(), path.c_str()) != 0)
            return report("linking " + path, QXL_ERR_FILE, std::strerror(errno));
        if (arguments.has("--verbose"))
            std::printf("%s -> %s\n", name.c_str(), target.c_str());
    }
    return 0;
}

} // namespace qxcli
