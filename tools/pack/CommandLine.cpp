#include "tools/pack/CommandLine.h"

#include <map>
#include <set>

namespace ZelPack {

namespace {

constexpr uint64_t kMaxBlockSize = uint64_t{1} << 31;

// Digits only: no sign, no blanks, no overflow.
bool ParseUnsigned(const std::string& text, uint64_t& value) {
    if (text.empty() || text.size() > 20) {
        return false;
    }
    value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        uint64_t digit = static_cast<uint64_t>(c - '0');
        if (value > (UINT64_MAX - digit) / 10) {
            return false;
        }
        value = value * 10 + digit;
    }
    return true;
}

class PackParser {
public:
    explicit PackParser(PackRequest& request)
        : request_(request),
          texts_{{"--payload", &request.payloadFile},
                 {"--sign-key", &request.signKeyFile},
                 {"--sign-cert", &request.signCertFile},
                 {"--intermediate", &request.intermediateFile},
                 {"--device-cert", &request.deviceCertFile},
                 {"--version", &request.options.version},
                 {"--display-text", &request.options.displayText},
                 {"--url", &request.options.url},
                 {"--opid", &request.options.opid},
                 {"--sub", &request.options.sub},
                 {"--upf", &request.options.upf},
                 {"--out-token", &request.tokenOut},
                 {"--out-payload", &request.payloadOut},
                 {"--out-local", &request.localOut}},
          flags_{{"--mandatory", &request.options.mandatory},
                 {"--auto-answer", &request.options.autoAnswer}} {}

    bool parse(int argc, const char* const* argv, std::string& error) {
        for (int i = 0; i < argc; ++i) {
            std::string name = argv[i];
            std::string value;
            bool inlineValue = false;
            size_t equals = name.find('=');
            if (name.compare(0, 2, "--") == 0 && equals != std::string::npos) {
                value = name.substr(equals + 1);
                name.resize(equals);
                inlineValue = true;
            }
            if (flags_.count(name) != 0) {
                if (inlineValue) {
                    error = name + " takes no value";
                    return false;
                }
                *flags_[name] = true;
                continue;
            }
            if (texts_.count(name) == 0 && name != "--audience" && name != "--block-size" &&
                name != "--upi") {
                error = "unknown option " + name;
                return false;
            }
            if (!inlineValue) {
                if (i + 1 >= argc) {
                    error = name + " needs a value";
                    return false;
                }
                value = argv[++i];
            }
            if (!take(name, value, error)) {
                return false;
            }
        }
        return checkRequired(error);
    }

private:
    bool take(const std::string& name, const std::string& value, std::string& error) {
        if (name == "--audience") {
            request_.options.audiences.push_back(value);
            return true;
        }
        if (!given_.insert(name).second) {
            error = name + " is given twice";
            return false;
        }
        uint64_t number = 0;
        if (name == "--block-size") {
            if (!ParseUnsigned(value, number) || number == 0 || number > kMaxBlockSize) {
                error = "--block-size must be a number from 1 to " + std::to_string(kMaxBlockSize) +
                        ", not \"" + value + "\"";
                return false;
            }
            request_.options.blockSize = static_cast<uint32_t>(number);
            return true;
        }
        if (name == "--upi") {
            if (!ParseUnsigned(value, number)) {
                error = "--upi must be an unsigned 64-bit number, not \"" + value + "\"";
                return false;
            }
            request_.options.upi = number;
            return true;
        }
        *texts_[name] = value;
        return true;
    }

    bool checkRequired(std::string& error) const {
        for (const char* name : {"--payload", "--sign-key", "--sign-cert", "--intermediate",
                                 "--device-cert", "--version", "--out-token"}) {
            if (given_.count(name) == 0) {
                error = std::string("missing ") + name;
                return false;
            }
        }
        if (request_.payloadOut.empty() && request_.localOut.empty()) {
            error =
                "give --out-payload or --out-local (or both): the token is of no use without "
                "the blocks it was made with";
            return false;
        }
        return true;
    }

    PackRequest& request_;
    std::map<std::string, std::string*> texts_;
    std::map<std::string, bool*> flags_;
    std::set<std::string> given_;
};

}  // namespace

bool ParseCommandLine(int argc, const char* const* argv, CommandLine& line, std::string& error) {
    line = CommandLine();
    if (argc < 2) {
        error = "no command given";
        return false;
    }
    std::string command = argv[1];
    if (command == "help" || command == "--help" || command == "-h") {
        line.command = CommandLine::Command::Help;
        return true;
    }
    if (command == "inspect") {
        if (argc != 3) {
            error = "inspect takes exactly one file";
            return false;
        }
        line.command = CommandLine::Command::Inspect;
        line.inspectFile = argv[2];
        return true;
    }
    if (command == "pack") {
        line.command = CommandLine::Command::Pack;
        return PackParser(line.pack).parse(argc - 2, argv + 2, error);
    }
    error = "unknown command \"" + command + "\"";
    return false;
}

const char* Usage() {
    return "usage: zel-pack pack --payload FILE --sign-key KEY.pem --sign-cert CRT.pem\n"
           "                     --intermediate INT.pem --device-cert DEVICE.crt --version V\n"
           "                     [--audience SWVER ...] [--block-size N] [--display-text T]\n"
           "                     [--url URL] [--mandatory] [--auto-answer] [--opid X]\n"
           "                     [--sub S] [--upf S] [--upi N]\n"
           "                     --out-token FILE [--out-payload FILE] [--out-local FILE]\n"
           "       zel-pack inspect FILE\n"
           "\n"
           "pack encrypts the payload for the device certificate's key and signs the token\n"
           "describing it. --out-payload writes the encrypted blocks as a cloud serves them\n"
           "(the token then names them with --url); --out-local writes the local payload\n"
           "file, the token in front of the blocks (no --url). The block size defaults to\n"
           "65536, the operator id to the device certificate CN's part before its first \".\".\n"
           "\n"
           "inspect shows a token or a local payload file and checks its signature against its\n"
           "own \"crt\" claim: exit 0 when it is signed and complete, 1 otherwise.\n"
           "\n"
           "Exit 2: the command line or an input cannot be used.\n";
}

}  // namespace ZelPack
