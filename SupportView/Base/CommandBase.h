#pragma once

#include <string>

namespace Zel {
namespace Sv {

class CommandHandler;

// Bit flags of the operations a command supports.
enum CommandOperation : unsigned {
    CommandOperationNone = 0,
    CommandOperationExecute = 1,
    CommandOperationGet = 2,
    CommandOperationDescription = 4,
    CommandOperationSessionTerminate = 16,
};

// What one request asks of its command.
struct CommandContext {
    CommandOperation operation = CommandOperationNone;
    unsigned version = 0;
};

// Result codes of handlers and their wrappers; a handler may return others.
enum CommandResult : unsigned {
    CommandResultSuccess = 0,
    CommandResultInvalidParameter = 3,
    CommandResultNotSupported = 4,
    CommandResultNotImplemented = 5,
};

// What a command is: its registry name and how it presents itself. What it
// does is its CommandHandler, made fresh for every request.
class CommandBase {
public:
    virtual ~CommandBase() = default;
    virtual std::string name() const = 0;
    virtual int type() const = 0;
    virtual std::string friendlyNameKey() const { return ""; }
    virtual std::string friendlyDescriptionKey() const { return ""; }
    virtual unsigned version() const = 0;
    virtual unsigned timeToComplete() const = 0;
    virtual CommandOperation supportedOperations() const = 0;
    // A new handler bound to this command, owned by the caller.
    virtual CommandHandler* create() const = 0;
};

}  // namespace Sv
}  // namespace Zel
