#pragma once

#include <initializer_list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

// One subcommand's command line: options that take a value ("--key FILE", which may repeat),
// flags ("--force") and operands, in any order. Anything else throws UsageError.
class ReleaseOptions {
public:
    ReleaseOptions(const std::vector<std::string>& arguments,
                   std::initializer_list<const char*> valued,
                   std::initializer_list<const char*> flags = {});

    // Every value given for `name`, in order.
    std::vector<std::string> all(const std::string& name) const;
    // The value given for `name`, if any; throws UsageError when it was given more than once.
    std::optional<std::string> one(const std::string& name) const;
    // The value given for `name`; throws UsageError "NAME VALUE is missing" when there is none.
    std::string required(const std::string& name, const std::string& value) const;
    bool has(const std::string& flag) const { return flags_.count(flag) != 0; }
    const std::vector<std::string>& operands() const { return operands_; }

private:
    std::map<std::string, std::vector<std::string>> values_;
    std::set<std::string> flags_;
    std::vector<std::string> operands_;
};
