#include "slapd.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdexcept>
#include <string_view>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <openssl/evp.h>

#include "files.h"

namespace qxtest {

namespace {

constexpr char slapd_binary[] = "/usr/sbin/slapd";
constexpr char schema_dir[] = "/etc/ldap/schema";
constexpr char module_dir[] = "/usr/lib/ldap";
constexpr char manager[] = "cn=manager,dc=qxcrl,dc=test";
constexpr char password[] = "qxcrl-test-secret";
constexpr int start_attempts = 8;
constexpr auto start_timeout = std::chrono::seconds(10);
constexpr auto stop_timeout = std::chrono::seconds(5);

using namespace std::chrono_literals;

std::string base64(const std::vector<unsigned char>& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(length));
    return text;
}

std::string base64(const std::string& text) {
    return base64(std::vector<unsigned char>(text.begin(), text.end()));
}

// A port nobody holds right now; slapd may still lose it to another
// process before it binds, which start_on notices.
uint16_t free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        throw std::runtime_error("socket failed");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
    close(fd);
    if (!ok)
        throw std::runtime_error("no free port on 127.0.0.1");
    return ntohs(address.sin_port);
}

bool answers(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return ok;
}

// The standard core schema with certificateRevocationList as an octet
// string, which slapd transfers without ;binary.
std::string plain_core_schema() {
    const std::vector<unsigned char> bytes =
        read_file(std::filesystem::path(schema_dir) / "core.schema");
    std::string text(bytes.begin(), bytes.end());
    const size_t type = text.find("NAME 'certificateRevocationList'");
    const std::string binarySyntax = "SYNTAX 1.3.6.1.4.1.1466.115.121.1.9 )";
    const size_t syntax = type == std::string::npos ? type : text.find(binarySyntax, type);
    if (syntax == std::string::npos || text.find(')', type) < syntax)
        throw std::runtime_error("core.schema has no certificateRevocationList to change");
    text.replace(syntax, binarySyntax.size(), "SYNTAX 1.3.6.1.4.1.1466.115.121.1.40 )");
    return text;
}

// Percent-encodes what RFC 4516 does not allow bare in a URL's DN, and
// what would end the DN ('?', '/', '#').
std::string escape_dn(const std::string& dn) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string escaped;
    for (const char c : dn) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
            (byte >= '0' && byte <= '9') ||
            std::string_view("-._~=,;+").find(c) != std::string_view::npos) {
            escaped += c;
        } else {
            escaped += '%';
            escaped += hex[byte >> 4];
            escaped += hex[byte & 0xF];
        }
    }
    return escaped;
}

} // namespace

Slapd::Slapd(CrlTransfer transfer)
    : dir_(std::make_unique<TempDir>()), binary_(transfer == CrlTransfer::Binary) {
    write_configuration(transfer);
    for (int attempt = 1; attempt <= start_attempts; ++attempt) {
        if (start_on(free_port()))
            break;
        if (attempt == start_attempts)
            throw std::runtime_error("slapd did not start:\n" + log());
    }
    try {
        ldapadd(std::string("dn: ") + suffix +
                "\nobjectClass: dcObject\nobjectClass: organization\no: qxcrl\ndc: qxcrl\n");
    } catch (...) {
        stop(); // no destructor runs for an object never made
        throw;
    }
}

Slapd::~Slapd() {
    stop();
}

void Slapd::write_configuration(CrlTransfer transfer) {
    std::filesystem::create_directory(*dir_ / "db");
    std::string core = std::string(schema_dir) + "/core.schema";
    if (transfer == CrlTransfer::Plain) {
        write_text(*dir_ / "core.schema", plain_core_schema());
        core = (*dir_ / "core.schema").string();
    }
    const std::string dir = dir_->path().string();
    config_ = *dir_ / "slapd.conf";
    write_text(config_, "include " + core + "\n" + "include " + schema_dir +
                            "/cosine.schema\n"
                            "modulepath " +
                            module_dir +
                            "\n"
                            "moduleload back_mdb\n"
                            "pidfile " +
                            dir + "/slapd.pid\nargsfile " + dir +
                            "/slapd.args\n"
                            "database mdb\n"
                            "maxsize 104857600\n"
                            "suffix \"" +
                            suffix + "\"\nrootdn \"" + manager + "\"\nrootpw " + password +
                            "\ndirectory " + dir +
                            "/db\n"
                            "access to * by * read\n");
}

bool Slapd::start_on(uint16_t port) {
    const std::string listen = "ldap://127.0.0.1:" + std::to_string(port) + "/";
    const std::string logPath = (*dir_ / "slapd.log").string();
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("fork failed");
    if (child == 0) {
        // Dies with the thread that started it, however the tests end.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(127);
        const int out = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        const int none = open("/dev/null", O_RDONLY);
        if (out < 0 || none < 0 || dup2(none, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0)
            _exit(127);
        // -d keeps it in the foreground, so this child is the server.
        execl(slapd_binary, "slapd", "-h", listen.c_str(), "-f", config_.c_str(), "-d", "0",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    pid_ = child;
    const auto deadline = std::chrono::steady_clock::now() + start_timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) {
            pid_ = -1; // most likely the port was taken meanwhile
            return false;
        }
        if (answers(port)) {
            port_ = port;
            return true;
        }
        std::this_thread::sleep_for(20ms);
    }
    stop();
    throw std::runtime_error("slapd did not answer on " + listen + ":\n" + log());
}

void Slapd::add_crl_entry(const std::string& dn, const std::string& objectClass,
                          const std::vector<std::vector<unsigned char>>& crls) {
    const size_t equals = dn.find('=');
    const size_t comma = dn.find(',');
    if (equals == std::string::npos || (comma != std::string::npos && comma < equals))
        throw std::runtime_error("not a DN: " + dn);
    const std::string rdnType = dn.substr(0, equals);
    const std::string rdnValue =
        dn.substr(equals + 1, comma == std::string::npos ? std::string::npos : comma - equals - 1);
    std::string ldif = "dn:: " + base64(dn) + "\nobjectClass: " + objectClass + "\n";
    if (objectClass == "pkiCA") {
        if (rdnType == "cn")
            ldif += "objectClass: applicationProcess\n";
        else if (rdnType == "ou")
            ldif += "objectClass: organizationalUnit\n";
        else if (rdnType == "o")
            ldif += "objectClass: organization\n";
        else
            throw std::runtime_error("no structural class for " + dn);
    }
    ldif += rdnType + ":: " + base64(rdnValue) + "\n";
    const std::string attribute =
        binary_ ? "certificateRevocationList;binary" : "certificateRevocationList";
    for (const std::vector<unsigned char>& crl : crls)
        ldif += attribute + ":: " + base64(crl) + "\n";
    ldapadd(ldif);
}

std::string Slapd::url(const std::string& dn, const std::string& attribute,
                       const std::string& scope, const std::string& filter) const {
    std::string text = "ldap://127.0.0.1:" + std::to_string(port_) + "/" + escape_dn(dn);
    if (!attribute.empty() || !scope.empty() || !filter.empty())
        text += "?" + attribute;
    if (!scope.empty() || !filter.empty())
        text += "?" + scope;
    if (!filter.empty())
        text += "?" + filter;
    return text;
}

void Slapd::suspend() {
    if (pid_ <= 0)
        return;
    kill(pid_, SIGSTOP);
    // The signal takes effect when the server is next scheduled: on a busy
    // machine it could still answer one request after kill returns.
    int status = 0;
    while (waitpid(pid_, &status, WUNTRACED) < 0 && errno == EINTR) {
    }
}

void Slapd::resume() {
    if (pid_ > 0)
        kill(pid_, SIGCONT);
}

void Slapd::stop() {
    if (pid_ <= 0)
        return;
    kill(pid_, SIGTERM);
    kill(pid_, SIGCONT); // a suspended server must run to see the SIGTERM
    const auto deadline = std::chrono::steady_clock::now() + stop_timeout;
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(10ms);
    }
    pid_ = -1;
}

void Slapd::ldapadd(const std::string& ldif) {
    const std::filesystem::path file = *dir_ / "add.ldif";
    write_text(file, ldif);
    const std::string command = "ldapadd -x -H ldap://127.0.0.1:" + std::to_string(port_) +
                                "/ -D '" + manager + "' -w '" + password + "' -f add.ldif";
    if (run_in(dir_->path(), command) != 0)
        throw std::runtime_error("ldapadd failed:\n" + log());
}

std::string Slapd::log() const {
    std::string text;
    for (const char* name : {"slapd.log", "log.txt"}) {
        std::error_code missing;
        if (!std::filesystem::exists(*dir_ / name, missing))
            continue;
        const std::vector<unsigned char> bytes = read_file(*dir_ / name);
        text += std::string("--- ") + name + "\n" + std::string(bytes.begin(), bytes.end());
    }
    return text;
}

} // namespace qxtest
