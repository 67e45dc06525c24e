// Stored form of passwords: secretbox under a per-home key, base64 of nonce||ciphertext.
#include "catalog/db.h"
#include "detail.h"
#include "hostapi/fd.h"
#include "hostapi/fileutil.h"
#include "vshost/catalog.h"
#include "vshost/durable.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <stdexcept>
#include <vector>

namespace vshost {
namespace {

constexpr size_t kKeySize = crypto_secretbox_KEYBYTES;
constexpr size_t kNonceSize = crypto_secretbox_NONCEBYTES;
constexpr size_t kMacSize = crypto_secretbox_MACBYTES;

void InitSodium() {
    static const int rc = sodium_init();
    if (rc < 0) throw std::runtime_error("libsodium cannot be initialised");
}

// The key, wiped from memory when it goes out of scope.
class Key {
public:
    ~Key() { sodium_memzero(bytes, sizeof bytes); }
    unsigned char bytes[kKeySize] = {};
};

std::string KeyPath() {
    std::string home = detail::Home();
    if (home.empty()) throw std::runtime_error("no host home is open");
    return home + "/keys/secret.key";
}

// Reads the key file; false when it does not exist.
bool ReadKey(const std::string& path, Key& key) {
    const vshost::Fd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) {
        if (errno == ENOENT) return false;
        throw std::runtime_error(CQiError::FromErrno("open " + path).AsString());
    }
    size_t got = 0;
    unsigned char extra;
    while (got < kKeySize) {
        ssize_t n = read(fd.get(), key.bytes + got, kKeySize - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    const ssize_t more = read(fd.get(), &extra, 1);
    if (got != kKeySize || more != 0) throw std::runtime_error("key file " + path + " is damaged");
    return true;
}

// Writes a fresh key aside and links it into place: link() fails when another process
// got there first, and readers never see a partly written key. Either way the key that
// ends up in place is read back.
void CreateKey(const std::string& path, Key& key) {
    // Random suffix: threads of one process share the pid.
    const std::string tmp = path + ".new." + std::to_string(getpid()) + "." + std::to_string(randombytes_random());
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) throw std::runtime_error(CQiError::FromErrno("create " + tmp).AsString());
    Key fresh;
    randombytes_buf(fresh.bytes, sizeof fresh.bytes);
    bool ok = fchmod(fd, 0600) == 0 &&
              write(fd, fresh.bytes, sizeof fresh.bytes) == static_cast<ssize_t>(sizeof fresh.bytes) && fsync(fd) == 0;
    CQiError err = CQiError::FromErrno("write " + tmp);
    close(fd);
    if (!ok) {
        unlink(tmp.c_str());
        throw std::runtime_error(err.AsString());
    }
    int linked = link(tmp.c_str(), path.c_str());
    err = CQiError::FromErrno("link " + path);
    unlink(tmp.c_str());
    if (linked != 0 && err.Errno() != EEXIST) throw std::runtime_error(err.AsString());
    // The key encrypts what is stored under it: its name must outlive a power loss.
    if (linked == 0 && !SyncFolderOf(path))
        throw std::runtime_error(CQiError::FromErrno("sync the folder of " + path).AsString());
    if (!ReadKey(path, key)) throw std::runtime_error("key file " + path + " vanished");
}

void LoadOrCreateKey(Key& key) {
    const std::string path = KeyPath();
    if (!ReadKey(path, key)) CreateKey(path, key);
}

// Names the key without giving anything of it away: a keyed hash of a fixed text.
std::string Fingerprint(const Key& key) {
    static constexpr char kLabel[] = "vshost catalog key fingerprint";
    unsigned char hash[16];
    crypto_generichash(hash, sizeof hash, reinterpret_cast<const unsigned char*>(kLabel), sizeof kLabel - 1, key.bytes,
                       sizeof key.bytes);
    char hex[sizeof hash * 2 + 1];
    sodium_bin2hex(hex, sizeof hex, hash, sizeof hash);
    return hex;
}

}  // namespace

void detail::CheckSecretKey(db::Connection& conn) {
    InitSodium();
    Key key;
    LoadOrCreateKey(key);
    const std::string mine = Fingerprint(key);
    db::Statement q(conn, "SELECT fingerprint FROM secret_key");
    if (!q.Step()) {
        db::Statement(conn, "INSERT INTO secret_key (fingerprint) VALUES (?1)").Bind(1, mine).Run();
        return;
    }
    const std::string theirs = q.Text(0);
    if (theirs != mine)
        throw std::runtime_error("catalog: the passwords in this catalog are stored under another key (fingerprint " +
                                 theirs + ") than this home's keys/secret.key (" + mine +
                                 "); copy secret.key from a host that shares this catalog");
}

std::string EncryptSecret(const std::string& plain) {
    InitSodium();
    Key key;
    LoadOrCreateKey(key);
    std::vector<unsigned char> box(kNonceSize + kMacSize + plain.size());
    randombytes_buf(box.data(), kNonceSize);
    crypto_secretbox_easy(box.data() + kNonceSize, reinterpret_cast<const unsigned char*>(plain.data()), plain.size(),
                          box.data(), key.bytes);
    std::string out(sodium_base64_ENCODED_LEN(box.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
    sodium_bin2base64(out.data(), out.size(), box.data(), box.size(), sodium_base64_VARIANT_ORIGINAL);
    out.resize(out.find('\0'));
    return out;
}

bool DecryptSecret(const std::string& stored, std::string& plain) {
    try {
        InitSodium();
        if (stored.empty()) return false;
        Key key;
        // Without a key nothing can have been encrypted for this home; do not make one.
        if (!ReadKey(KeyPath(), key)) return false;
        std::vector<unsigned char> box(stored.size() / 4 * 3 + 3);
        size_t boxLen = 0;
        // No b64_end: trailing characters that are not base64 make the call fail.
        if (sodium_base642bin(box.data(), box.size(), stored.data(), stored.size(), nullptr, &boxLen, nullptr,
                              sodium_base64_VARIANT_ORIGINAL) != 0)
            return false;
        if (boxLen < kNonceSize + kMacSize) return false;
        std::vector<unsigned char> clear(boxLen - kNonceSize - kMacSize + 1);
        if (crypto_secretbox_open_easy(clear.data(), box.data() + kNonceSize, boxLen - kNonceSize, box.data(),
                                       key.bytes) != 0)
            return false;
        plain.assign(reinterpret_cast<const char*>(clear.data()), boxLen - kNonceSize - kMacSize);
        sodium_memzero(clear.data(), clear.size());
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace vshost
