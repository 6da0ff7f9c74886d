#include "signature.hpp"

#include <openssl/pem.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <regex>
#include <vector>

#include "files.hpp"
#include "text.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

using Bio = tools::Handle<BIO, BIO_free>;
using Key = tools::Handle<EVP_PKEY, EVP_PKEY_free>;
using Context = tools::Handle<EVP_MD_CTX, EVP_MD_CTX_free>;

constexpr std::size_t largest_pem = 65536;
constexpr std::size_t signature_size = 64;
constexpr std::int64_t most_ahead_s = 300;  // that a clock may be wrong
const std::string mark = "# signature: ";

// In the place of the callback that asks on the terminal: pem_password_cb(3).
int no_pass_phrase(char* /*buffer*/, int /*size*/, int /*writes*/, void* asked) {
    *static_cast<bool*>(asked) = true;
    return -1;
}

Bio reader_of(const std::string& text) {
    return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

bool is_usable(const Key& key) {
    return EVP_PKEY_get_id(key.get()) == EVP_PKEY_ED25519;
}

std::string pem_of(const std::vector<Key>& keys) {
    const Bio out(BIO_new(BIO_s_mem()));
    for (const auto& key : keys) {
        PEM_write_bio_PUBKEY(out.get(), key.get());
    }
    char* text = nullptr;
    const auto size = BIO_get_mem_data(out.get(), &text);
    return {text, static_cast<std::size_t>(size)};
}

std::vector<Key> keys_in(const std::string& pem) {
    const Bio in = reader_of(pem);
    std::vector<Key> keys;
    bool ignored = false;
    while (EVP_PKEY* key = PEM_read_bio_PUBKEY(in.get(), nullptr, no_pass_phrase, &ignored)) {
        keys.emplace_back(key);
    }
    return keys;
}

// What is written otherwise may hold a key that is not read.
std::string public_keys(const fs::path& path) {
    std::string pem = tools::read_all(tools::open_regular(path).get(), largest_pem, path);
    const auto keys = keys_in(pem);
    if (keys.empty() || !std::all_of(keys.begin(), keys.end(), is_usable) || pem_of(keys) != pem) {
        fail(path.string() + " must hold Ed25519 public keys as openssl pkey -pubout writes them, and nothing else");
    }
    return pem;
}

fs::path stored_path(const Options& options) {
    fs::path path = directory_of(options) / trusted_name;
    const fs::file_status found = fs::symlink_status(path);
    if (fs::exists(found) && !fs::is_regular_file(found)) {
        fail(path.string() + " is not a regular file: remove it, and name the keys by zqu-mirror mirror --trust");
    }
    return fs::exists(found) ? path : "";
}

Key private_key(const std::string& path) {
    const Fd file = tools::open_regular(path);
    struct stat status {};
    if (fstat(file.get(), &status) != 0 || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        fail(path + " may be used by other users: give it the mode 0600, or make a new key if one of them may have it");
    }
    const std::string pem = tools::read_all(file.get(), largest_pem, path);
    bool asked = false;
    Key key(PEM_read_bio_PrivateKey(reader_of(pem).get(), nullptr, no_pass_phrase, &asked));
    if (asked) {
        fail(path + " has a pass phrase, and nobody is asked for it: take another key, or one that " +
             "openssl pkey -in " + path + " -out FILE has made of it");
    }
    if (!key || !is_usable(key)) {
        fail(path + " holds no Ed25519 private key in PEM: make one with openssl genpkey -algorithm ed25519");
    }
    return key;
}

const unsigned char* bytes_of(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string signature_of(const std::string& text, const Key& key) {
    const Context context(EVP_MD_CTX_new());
    std::string made(signature_size, '\0');
    std::size_t size = made.size();
    if (EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1 ||
        EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(made.data()), &size, bytes_of(text),
                       text.size()) != 1) {
        fail("cannot sign");
    }
    return made;
}

std::string line_of(const std::string& signature) {
    std::array<unsigned char, signature_size * 2> base64{};
    const int size = EVP_EncodeBlock(base64.data(), bytes_of(signature), static_cast<int>(signature.size()));
    return mark + std::string(base64.data(), base64.data() + size) + "\n";
}

// An INI in two: all before its last line, and the signature in that line.
struct Parts {
    std::string text;
    std::string signature;
};

std::optional<Parts> parts_of(const std::string& info) {
    static const std::string longest = line_of(std::string(signature_size, '\0'));
    const std::size_t start = info.size() - std::min(info.size(), longest.size());
    if (start == 0 || info[start - 1] != '\n') {
        return std::nullopt;
    }
    const std::string base64 = info.substr(start + mark.size(), longest.size() - mark.size() - 1);
    std::string decoded(base64.size(), '\0');
    EVP_DecodeBlock(reinterpret_cast<unsigned char*>(decoded.data()), bytes_of(base64),
                    static_cast<int>(base64.size()));
    decoded.resize(signature_size);
    const bool found = info.substr(start) == line_of(decoded);
    return found ? std::optional<Parts>({info.substr(0, start), decoded}) : std::nullopt;
}

bool is_signed_by(const Key& key, const Parts& parts) {
    const Context context(EVP_MD_CTX_new());
    return EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
           EVP_DigestVerify(context.get(), bytes_of(parts.signature), parts.signature.size(), bytes_of(parts.text),
                            parts.text.size()) == 1;
}

// What a signed text says.
struct Statement {
    std::string id;
    std::string flavor;
    std::int64_t published;
};

// Of the first lines as publish writes them: the daemon, too, takes the first of several equal keys.
std::optional<Statement> statement_in(const std::string& text) {
    static const std::regex form(
        "def\\.Current\\.defId = (\\S{1,255})\n"
        "def\\.Current\\.name = \\S{1,255}\n"
        "def\\.Current\\.SHA256 = \\S{64}\n"
        "def\\.Current\\.size = \\d{1,18}\n"
        "def\\.Current\\.flavor = (\\S{1,255})\n"
        "def\\.Current\\.published = (\\d{1,18})\n");
    std::smatch found;
    const bool plain = std::regex_search(text, found, form, std::regex_constants::match_continuous);
    return plain ? std::optional<Statement>({found[1], found[2], std::stoll(found[3])}) : std::nullopt;
}

// One message.
std::string receive(const Fd& channel) {
    std::string text(largest_pem, '\0');
    const ssize_t size = read(channel.get(), text.data(), text.size());
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return text;
}

void post(const Fd& channel, const std::string& text) {
    send(channel.get(), text.data(), text.size(), MSG_NOSIGNAL);  // receive() finds a channel that is closed
}

// In the process with the key. The first message is the public half, or why there is none.
void serve(const Fd& channel, const std::string& path) {
    try {
        std::vector<Key> keys;
        keys.push_back(private_key(path));
        post(channel, pem_of(keys));
        const std::string text = receive(channel);
        post(channel, text.empty() ? "" : signature_of(text, keys.front()));
    } catch (const std::exception& e) {
        post(channel, e.what());
    }
}

Fd start_process(const std::string& path) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        fail_errno("cannot make a socket");
    }
    Fd here(ends[0]);
    const Fd there(ends[1]);
    const pid_t child = fork();
    if (child < 0) {
        fail_errno("cannot make a process");
    }
    if (child == 0) {
        close(here.release());
        serve(there, path);
        _exit(EXIT_SUCCESS);
    }
    return here;
}

std::string public_half(const Fd& channel) {
    std::string answer = receive(channel);
    return keys_in(answer).empty() ? throw std::runtime_error(answer) : answer;
}

}  // namespace

std::string given_keys(const Options& options) {
    std::string keys;
    for (const auto& path : options.trust) {
        keys += public_keys(path);
    }
    return keys;
}

std::string trusted_keys(const Options& options) {
    std::string keys = given_keys(options);
    const fs::path stored = keys.empty() ? stored_path(options) : "";
    keys += stored.empty() ? "" : public_keys(stored);
    if (keys.empty() && options.max_age_s > 0) {
        fail("--max-age counts from a time that a trusted key has signed: name one by --trust");
    }
    return keys;
}

void store_keys(const Options& options, const std::string& keys, Run& run) {
    const fs::path stored = stored_path(options);
    if (!stored.empty() && text_of(stored) == keys) {
        return;
    }
    Workplace place(directory_of(options), run);
    write_text(place.work("trusted"), keys);
    run.commit([&] { move(place.work("trusted"), place.directory() / trusted_name); });
    run.reopen();
    flush(place.directory());
}

std::string distrust(const Options& options, const std::string& keys, const std::string& id, const std::string& text) {
    const auto parts = parts_of(text);
    if (!parts) {
        return "is not signed";
    }
    const std::vector<Key> trusted = keys_in(keys);
    if (std::none_of(trusted.begin(), trusted.end(), [&](const Key& key) { return is_signed_by(key, *parts); })) {
        return "is signed by none of the trusted keys, or was changed";
    }
    const auto found = statement_in(parts->text);
    if (!found) {
        return "is signed, but not written as publish does";
    }
    if (found->flavor != options.flavor) {
        return "is signed for another flavor: " + found->flavor;
    }
    if (found->id != id) {
        return "is signed for another id: " + found->id;
    }
    const std::int64_t age_s = std::time(nullptr) - found->published;
    if (age_s < -most_ahead_s) {
        return "was published " + tools::duration_text(-age_s) + " in the future: check the clocks";
    }
    const bool old = options.max_age_s > 0 && age_s > options.max_age_s;
    return old ? "was published " + tools::duration_text(age_s) + " ago, longer than " +
                     tools::duration_text(options.max_age_s)
               : "";
}

std::optional<std::int64_t> signed_time(const std::string& text) {
    const auto parts = parts_of(text);
    const auto found = parts ? statement_in(parts->text) : std::nullopt;
    return found ? std::optional<std::int64_t>(found->published) : std::nullopt;
}

Signer::Signer(const std::string& path) : channel_(start_process(path)), key_(public_half(channel_)) {}

std::string Signer::sign(const std::string& text) const {
    post(channel_, text);
    const std::string signature = receive(channel_);
    if (signature.size() != signature_size) {
        fail("cannot sign: " + signature);
    }
    return text + line_of(signature);
}

}  // namespace zqu::mirror_tool
