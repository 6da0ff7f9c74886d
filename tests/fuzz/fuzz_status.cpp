// Feeds the writer of the status file: the ten lines have to be there, and to give every value back once the escapes of
// JSON (RFC 8259) are undone. A control character that is not escaped is let through, as the writer does.
#include <cstdint>
#include <cstring>
#include <string>

#include "config.hpp"
#include "fuzz_file.hpp"
#include "snapshot_store.hpp"
#include "text_lines.hpp"

namespace {

using Status = zqu::SnapshotStore::Status;

zqu::Config configuration(const zqu::fuzz::Folder& folder) {
    zqu::Config cfg;
    cfg.def_root = folder / "defs";
    cfg.status_path = folder / "status.json";
    return cfg;
}

// The input: two times, then four marks that say where the rest is cut into five texts.
Status status_from(const std::string& input) {
    std::int64_t times[2];
    unsigned char marks[4];
    std::memcpy(times, input.data(), sizeof(times));
    std::memcpy(marks, input.data() + sizeof(times), sizeof(marks));
    const std::string rest = input.substr(sizeof(times) + sizeof(marks));
    std::string texts[5];
    std::size_t start = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        const std::size_t length = (rest.size() - start) * marks[i] / 255;
        texts[i] = rest.substr(start, length);
        start += length;
    }
    return {texts[0], texts[1], texts[2], texts[3], times[0], times[1], rest.substr(start)};
}

// Reads the file from its start to its end, piece by piece.
class Reader {
public:
    explicit Reader(std::string text) : text_(std::move(text)) {}

    void expect(const std::string& piece) {
        zqu::fuzz::require(text_.compare(at_, piece.size(), piece) == 0);
        at_ += piece.size();
    }

    void expect_text(const std::string& name, const std::string& value, const std::string& end) {
        expect("  \"" + name + "\": \"");
        for (const char c : value) {
            zqu::fuzz::require(next_character() == c);
        }
        expect("\"" + end);
    }

    void expect_number(const std::string& name, std::int64_t value) {
        expect("  \"" + name + "\": " + std::to_string(value) + ",\n");
    }

    void expect_end() const { zqu::fuzz::require(at_ == text_.size()); }

private:
    char take() {
        zqu::fuzz::require(at_ < text_.size());
        return text_[at_++];
    }

    char next_character() {
        const char c = take();
        zqu::fuzz::require(c != '"' && c != '\t' && c != '\n' && c != '\r');
        if (c != '\\') {
            return c;
        }
        static constexpr char escapes[] = "\"\\/bfnrt";
        static constexpr char characters[] = "\"\\/\b\f\n\r\t";
        const char escape = take();
        const char* const found = std::strchr(escapes, escape);
        zqu::fuzz::require(escape != '\0' && found != nullptr);
        return characters[found - escapes];
    }

    std::string text_;
    std::size_t at_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 20) {
        return 0;
    }
    static const zqu::fuzz::Folder folder;
    static const zqu::Config cfg = configuration(folder);
    static const zqu::SnapshotStore store(cfg);
    const Status status = status_from(zqu::fuzz::to_string(data, size));
    store.write_status(status);

    Reader file(zqu::fuzz::read_file(cfg.status_path));
    file.expect("{\n  \"schema_version\": 1,\n");
    file.expect_text("active_version", status.active_version, ",\n");
    file.expect_text("engine_version", status.engine_version, ",\n");
    file.expect_text("antivir_def_version", status.antivir_def_version, ",\n");
    file.expect_text("aivsecon_def_version", status.aivsecon_def_version, ",\n");
    file.expect_number("last_check_epoch", status.last_check_epoch);
    file.expect_number("last_success_epoch", status.last_success_epoch);
    file.expect_text("last_error", status.last_error, "\n");
    file.expect("}\n");
    file.expect_end();
    return 0;
}
