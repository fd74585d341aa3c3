#include "ReleaseOptions.h"

#include "ReleaseCommand.h"

ReleaseOptions::ReleaseOptions(const std::vector<std::string>& arguments,
                               std::initializer_list<const char*> valued,
                               std::initializer_list<const char*> flags) {
    const std::set<std::string> takesValue(valued.begin(), valued.end());
    const std::set<std::string> isFlag(flags.begin(), flags.end());
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (takesValue.count(argument)) {
            if (i + 1 >= arguments.size())
                throw UsageError(argument + " needs a value");
            values_[argument].push_back(arguments[++i]);
        } else if (isFlag.count(argument)) {
            flags_.insert(argument);
        } else if (!argument.empty() && argument[0] == '-') {
            throw UsageError("unknown option " + argument);
        } else {
            operands_.push_back(argument);
        }
    }
}

std::vector<std::string> ReleaseOptions::all(const std::string& name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? std::vector<std::string>() : found->second;
}

std::optional<std::string> ReleaseOptions::one(const std::string& name) const {
    const std::vector<std::string> given = all(name);
    if (given.size() > 1)
        throw UsageError(name + " is given more than once");
    if (given.empty())
        return std::nullopt;
    return given.front();
}

std::string ReleaseOptions::required(const std::string& name, const std::string& value) const {
    const std::optional<std::string> given = one(name);
    if (!given || given->empty())
        throw UsageError(name + " " + value + " is missing");
    return *given;
}
