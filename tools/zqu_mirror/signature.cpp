#include "signature.hpp"

#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <ctime>
#include <map>
#include <regex>
#include <sstream>

#include "plain.hpp"
#include "text.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

using Bio = tools::Handle<BIO, BIO_free>;
using Key = tools::Handle<EVP_PKEY, EVP_PKEY_free>;
using Context = tools::Handle<EVP_MD_CTX, EVP_MD_CTX_free>;
using Bytes = std::array<unsigned char, 128>;

// The name of the file with the trusted keys. Not served: it begins with a dot.
constexpr const char* trusted_name = ".zqu-mirror.trusted.pem";
constexpr std::size_t largest_pem = 65536;
constexpr std::size_t signature_size = 64;
constexpr int base64_size = 88;
constexpr std::int64_t most_ahead_s = 300;  // that a clock may be wrong
const std::string mark = "# signature: ";

Bio reader_of(const std::string& text) {
    return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// Instead of the callback that asks on the terminal: pem_password_cb(3).
int no_pass_phrase(char* /*buffer*/, int /*size*/, int /*writes*/, void* asked) {
    *static_cast<bool*>(asked) = true;
    return -1;
}

Key read_private(const std::string& pem, const std::string& path = "the key") {
    bool asked = false;
    Key key(PEM_read_bio_PrivateKey(reader_of(pem).get(), nullptr, no_pass_phrase, &asked));
    if (asked) {
        fail(path +
             " has a pass phrase, which zqu-mirror does not ask for: use another key, or remove it by openssl "
             "pkey -in " +
             path + " -out FILE");
    }
    if (!key || EVP_PKEY_get_id(key.get()) != EVP_PKEY_ED25519) {
        fail(path + " holds no Ed25519 private key in PEM: make one with openssl genpkey -algorithm ed25519");
    }
    return key;
}

// Refuses any other form: it may hold a key that is not read.
std::string public_keys(const fs::path& path) {
    static const std::regex key(
        "-----BEGIN PUBLIC KEY-----\n"
        "MCowBQYDK2VwAyEA[A-Za-z0-9+/]{43}=\n"  // RFC 8410, section 4
        "-----END PUBLIC KEY-----\n");
    std::string pem = tools::read_all(tools::open_regular(path).get(), largest_pem, path);
    if (pem.empty() || pem.size() > largest_pem || !std::regex_replace(pem, key, "").empty()) {
        fail(path.string() + " must hold Ed25519 public keys as openssl pkey -pubout writes them, and nothing else");
    }
    return pem;
}

const unsigned char* bytes_of(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

// An INI as publish signs it.
struct Signed {
    std::string text;  // that is signed
    Bytes signature;
    std::string id;
    std::string flavor;
    std::int64_t published = -1;
};

// Of several equal keys the daemon, too, takes the first.
std::optional<Signed> read_signed(const std::string& info) {
    const auto end = info.rfind("\n" + mark);
    const std::string last = end == std::string::npos ? "" : info.substr(end + 1);
    Bytes signature{};
    if (last.size() != mark.size() + base64_size + 1 || last.back() != '\n' ||
        EVP_DecodeBlock(signature.data(), bytes_of(last) + mark.size(), base64_size) < 0) {
        return std::nullopt;
    }
    std::istringstream lines(info);
    std::map<std::string, std::string> values;
    for (const std::string name : {"defId", "name", "SHA256", "size", "flavor", "published"}) {
        const std::string start = "def.Current." + name + " = ";
        std::string line;
        if (!std::getline(lines, line) || !begins_with(line, start)) {
            return std::nullopt;
        }
        values[name] = line.substr(start.size());
    }
    Signed found{info.substr(0, end + 1), signature, values["defId"], values["flavor"]};
    const std::string& time = values["published"];
    const auto [stop, error] = std::from_chars(time.data(), time.data() + time.size(), found.published);
    const bool whole = error == std::errc() && stop == time.data() + time.size() && found.published >= 0;
    return whole ? std::optional<Signed>(found) : std::nullopt;
}

bool is_signed_by_one(const std::string& keys, const Signed& found) {
    const Bio in = reader_of(keys);
    bool verified = false;
    while (const Key key{PEM_read_bio_PUBKEY(in.get(), nullptr, nullptr, nullptr)}) {
        const Context context(EVP_MD_CTX_new());
        verified |= EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
                    EVP_DigestVerify(context.get(), found.signature.data(), signature_size, bytes_of(found.text),
                                     found.text.size()) == 1;
    }
    return verified;
}

std::string fault_of(const Signed& found, const Options& options, const std::string& keys, const std::string& id) {
    if (!is_signed_by_one(keys, found)) {
        return "is signed by none of the trusted keys, or was changed";
    }
    if (found.flavor != options.flavor) {
        return "is signed for another flavor: " + found.flavor;
    }
    if (found.id != id) {
        return "is signed for another id: " + found.id;
    }
    const std::int64_t age_s = std::time(nullptr) - found.published;
    if (age_s < -most_ahead_s) {
        return "was published " + tools::duration_text(-age_s) + " in the future: check the clocks";
    }
    const std::string limit = tools::duration_text(options.max_age_s);
    const bool old = options.max_age_s > 0 && age_s > options.max_age_s;
    return old ? "was published " + tools::duration_text(age_s) + " ago, longer than " + limit : "";
}

}  // namespace

std::string private_key(const Options& options) {
    const std::string& path = options.sign;
    if (path.empty()) {
        return "";
    }
    const bool root = geteuid() == 0;
    become_owner(directory_of(options));
    if (root && geteuid() != 0) {
        fail(
            "the mirror's directory belongs to another user, who could read the key while root signs there: sign in a "
            "directory that belongs to root, and copy that with zqu-mirror mirror");
    }
    const Fd file = tools::open_regular(path);
    struct stat status = {};
    const bool known = fstat(file.get(), &status) == 0;
    if (!known || status.st_uid != geteuid() || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        fail(path +
             " may be used by other users: make it your own with the mode 0600, or make a new key if one of them may "
             "have it");
    }
    std::string pem = tools::read_all(file.get(), largest_pem, path);
    read_private(pem, path);
    return pem;
}

std::string public_half(const std::string& private_key) {
    const Bio out(BIO_new(BIO_s_mem()));
    PEM_write_bio_PUBKEY(out.get(), read_private(private_key).get());
    char* text = nullptr;
    const auto size = BIO_get_mem_data(out.get(), &text);
    return {text, static_cast<std::size_t>(size)};
}

std::string with_signature(const std::string& text, const std::string& private_key) {
    const Key key = read_private(private_key);
    const Context context(EVP_MD_CTX_new());
    Bytes signature{};
    Bytes base64{};
    std::size_t size = signature_size;
    if (EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1 ||
        EVP_DigestSign(context.get(), signature.data(), &size, bytes_of(text), text.size()) != 1) {
        fail("cannot sign");
    }
    EVP_EncodeBlock(base64.data(), signature.data(), signature_size);
    return text + mark + std::string(base64.data(), base64.data() + base64_size) + "\n";
}

std::string given_keys(const Options& options) {
    std::string keys;
    for (const auto& path : options.trust) {
        keys += public_keys(path);
    }
    return keys;
}

std::string trusted_keys(const Options& options, Run& run) {
    const fs::path path = directory_of(options) / trusted_name;
    const fs::file_status found = fs::symlink_status(path);
    if (fs::exists(found) && !fs::is_regular_file(found)) {
        fail(path.string() + " is not a regular file: remove it, and name the keys by zqu-mirror mirror --trust");
    }
    std::string keys = given_keys(options);
    if (keys.empty() && fs::exists(found)) {
        return public_keys(path);
    }
    if (keys.empty() && options.max_age_s > 0) {
        fail("--max-age needs a signed time, and no key is trusted here: give one by --trust");
    }
    if (!keys.empty() && (!fs::exists(found) || text_of(path) != keys)) {
        Workplace place(directory_of(options), run);
        write_text(place.work("trusted"), keys);
        run.commit([&] { move(place.work("trusted"), path); });
        run.reopen();
        flush(place.directory());
    }
    return keys;
}

std::string distrust(const Options& options, const std::string& keys, const std::string& id, const std::string& text) {
    const auto found = read_signed(text);
    const std::string fault = keys.empty() ? ""
                              : found      ? fault_of(*found, options, keys, id)
                              : text.find(plain_end + "\n") != std::string::npos
                                  ? "is of a plain mirror, which has no signatures: name the mirror that it copies"
                                  : "has no signature of zqu-mirror publish --sign";
    return fault.empty() ? "" : info_name(options.flavor, id) + " is refused: it " + fault;
}

std::optional<std::int64_t> signed_time(const std::string& text) {
    const auto found = read_signed(text);
    return found ? std::optional<std::int64_t>(found->published) : std::nullopt;
}

}  // namespace zqu::mirror_tool
