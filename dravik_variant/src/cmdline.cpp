#include "dravik_variant/cmdline.h"

#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "dravik_utils/decimal.h"

namespace dravik::variant {

namespace {

// Members of one entry of the definitions object.
constexpr const char* kShortKey = "short";
constexpr const char* kDescriptionKey = "description";
constexpr const char* kDefaultKey = "default";
constexpr const char* kOrderKey = "order";  // declaration order, for the help text

enum class ArgumentKind { kFlag, kText, kInteger };

struct KindInfo {
    ArgumentKind kind;
    const char* placeholder;  // shown in the help text
    int hasArg;               // getopt_long's has_arg
};

constexpr KindInfo kKinds[] = {
    {ArgumentKind::kFlag, "", no_argument},
    {ArgumentKind::kText, "<string>", required_argument},
    {ArgumentKind::kInteger, "<int>", required_argument},
};

// The default's tag decides how an option is read; anything that is neither a
// bool nor an integer takes its argument as text.
const KindInfo& kindOf(const Variant& defaultValue) {
    if (defaultValue.Type() == kBool) {
        return kKinds[0];
    }
    if (IsInteger(defaultValue.Type())) {
        return kKinds[2];
    }
    return kKinds[1];
}

struct Option {
    std::string name;
    char shortName = 0;
    std::string description;
    Variant defaultValue;
    int64_t order = 0;
    const KindInfo* kind = nullptr;
    int value = 0;  // what getopt_long returns for it
};

std::vector<Option> collectOptions(const Variant& definitions) {
    std::vector<Option> options;
    for (auto it = definitions.str_begin(); it != definitions.str_end(); ++it) {
        const Variant& entry = it->second;
        if (entry.Type() != kObject) {
            continue;
        }
        Option option;
        option.name = it->first;
        const Variant* shortName = entry.Find(kShortKey);
        option.shortName =
            shortName && !shortName->AsString().empty() ? shortName->AsString()[0] : 0;
        const Variant* description = entry.Find(kDescriptionKey);
        option.description = description ? description->AsString() : "";
        const Variant* defaultValue = entry.Find(kDefaultKey);
        option.defaultValue = defaultValue ? *defaultValue : Variant();
        const Variant* order = entry.Find(kOrderKey);
        option.order = order ? order->AsInt64() : 0;
        option.kind = &kindOf(option.defaultValue);
        options.push_back(std::move(option));
    }
    std::stable_sort(options.begin(), options.end(),
                     [](const Option& a, const Option& b) { return a.order < b.order; });
    // Options without a short form get values past every character.
    int nextLongValue = 256;
    for (Option& option : options) {
        option.value =
            option.shortName ? static_cast<unsigned char>(option.shortName) : nextLongValue++;
    }
    return options;
}

const Option* findByValue(const std::vector<Option>& options, int value) {
    for (const Option& option : options) {
        if (option.value == value) {
            return &option;
        }
    }
    return nullptr;
}

// A decimal integer taking the whole argument, stored as 32 bits when it
// fits. Returns why the text is refused, or nullptr.
const char* parseInteger(const char* text, Variant& value) {
    long long number = 0;
    switch (dravik::utils::parseDecimal(text, number)) {
        case dravik::utils::DecimalProblem::kNone:
            break;
        case dravik::utils::DecimalProblem::kNotDecimal:
            return "is not a decimal integer";
        case dravik::utils::DecimalProblem::kOutOfRange:
            return "is out of range";
    }
    if (number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max()) {
        value = static_cast<int>(number);
    } else {
        value = number;
    }
    return nullptr;
}

bool storeValue(const Option& option, const char* argument, Variant& parameters) {
    switch (option.kind->kind) {
        case ArgumentKind::kFlag:
            parameters[option.name] = true;
            return true;
        case ArgumentKind::kText:
            parameters[option.name] = argument;
            return true;
        case ArgumentKind::kInteger: {
            Variant number;
            if (const char* problem = parseInteger(argument, number)) {
                std::fprintf(stderr, "option '--%s': '%s' %s\n", option.name.c_str(), argument,
                             problem);
                return false;
            }
            parameters[option.name] = std::move(number);
            return true;
        }
    }
    return false;
}

std::string optionString(const std::vector<Option>& options) {
    // The leading ':' makes getopt report a missing argument as ':'.
    std::string shortOptions = ":";
    for (const Option& option : options) {
        if (option.shortName) {
            shortOptions += option.shortName;
            if (option.kind->hasArg == required_argument) {
                shortOptions += ':';
            }
        }
    }
    return shortOptions;
}

std::vector<struct option> longOptions(const std::vector<Option>& options) {
    std::vector<struct option> table;
    table.reserve(options.size() + 1);
    for (const Option& option : options) {
        table.push_back({option.name.c_str(), option.kind->hasArg, nullptr, option.value});
    }
    table.push_back({nullptr, 0, nullptr, 0});
    return table;
}

std::string displayName(const Option* option, int shortValue) {
    if (option) {
        return "--" + option->name;
    }
    return std::string("-") + static_cast<char>(shortValue);
}

void reportGetoptError(int code, const std::vector<Option>& options, const char* word) {
    const Option* option = findByValue(options, optopt);
    if (code == ':') {
        std::fprintf(stderr, "option '%s' requires an argument\n",
                     displayName(option, optopt).c_str());
    } else if (option) {
        // getopt_long reports "--flag=value" on a flag with the flag's own value.
        std::fprintf(stderr, "option '--%s' does not take an argument\n", option->name.c_str());
    } else if (optopt != 0) {
        std::fprintf(stderr, "unknown option '-%c'\n", static_cast<char>(optopt));
    } else {
        std::fprintf(stderr, "unknown option '%s'\n", word ? word : "");
    }
}

std::string defaultText(const Option& option) {
    const Variant& value = option.defaultValue;
    if (option.kind->kind == ArgumentKind::kFlag) {
        return "";  // a flag is either given or not
    }
    if (IsInteger(value.Type())) {
        return " (default: " + std::to_string(value.AsInt64()) + ")";
    }
    if (value.AsString().empty()) {
        return "";
    }
    return " (default: " + value.AsString() + ")";
}

std::string usageColumn(const Option& option) {
    std::string text = option.shortName ? std::string("  -") + option.shortName + ", " : "      ";
    text += "--" + option.name;
    if (*option.kind->placeholder) {
        text += ' ';
        text += option.kind->placeholder;
    }
    return text;
}

}  // namespace

void AddParameter(Variant& definitions, char shortName, const char* name, const char* description,
                  const Variant& defaultValue) {
    if (name == nullptr || *name == '\0') {
        return;
    }
    const Variant* existing = definitions.Find(name);
    const Variant* existingOrder = existing ? existing->Find(kOrderKey) : nullptr;
    const int64_t order = existingOrder ? existingOrder->AsInt64()
                                        : static_cast<int64_t>(definitions.StringKeysCount());
    Variant entry = Variant::MakeContainer(kObject);
    entry[kShortKey] = shortName ? std::string(1, shortName) : std::string();
    entry[kDescriptionKey] = description ? description : "";
    entry[kDefaultKey] = defaultValue;
    entry[kOrderKey] = static_cast<long>(order);
    definitions[name] = std::move(entry);
}

bool ParseCommandLine(int argc, const char** argv, Variant& definitions, Variant& result) {
    const std::vector<Option> options = collectOptions(definitions);
    const std::string shortOptions = optionString(options);
    const std::vector<struct option> table = longOptions(options);
    // getopt_long reorders its argument vector; it works on a copy of the
    // pointers (it never writes to the strings themselves).
    std::vector<char*> args;
    args.reserve(static_cast<size_t>(argc) + 1);
    for (int n = 0; n < argc; ++n) {
        args.push_back(const_cast<char*>(argv[n]));
    }
    args.push_back(nullptr);

    bool ok = true;
    Variant& parameters = result["parameters"];
    optind = 0;  // 0 re-initialises GNU getopt, so the parser can run again
    opterr = 0;
    for (;;) {
        const int code =
            getopt_long(argc, args.data(), shortOptions.c_str(), table.data(), nullptr);
        if (code == -1) {
            break;
        }
        const Option* option = code == '?' || code == ':' ? nullptr : findByValue(options, code);
        if (option == nullptr) {
            reportGetoptError(code, options, optind > 0 ? args[optind - 1] : nullptr);
            ok = false;
            continue;
        }
        ok = storeValue(*option, optarg, parameters) && ok;
    }
    for (int n = optind; n < argc; ++n) {
        std::fprintf(stderr, "unexpected argument '%s'\n", args[n]);
        ok = false;
    }
    if (parameters.StringKeysCount() == 0) {
        result.Erase("parameters");
    }
    return ok;
}

void PrintHelp(const char* programName, Variant& definitions) {
    const std::vector<Option> options = collectOptions(definitions);
    size_t width = 0;
    for (const Option& option : options) {
        width = std::max(width, usageColumn(option).size());
    }
    std::printf("Usage: %s [options]\n", programName ? programName : "");
    for (const Option& option : options) {
        const std::string column = usageColumn(option);
        std::printf("%s%s   %s%s\n", column.c_str(),
                    std::string(width - column.size(), ' ').c_str(), option.description.c_str(),
                    defaultText(option).c_str());
    }
    std::fflush(stdout);
}

}  // namespace dravik::variant
