// What options of several commands have in common.
#include <fmt/format.h>

#include <charconv>

#include "tools/commands.h"

CLI::Validator whole_number(int64_t least) {
    return CLI::Validator(
        [least](std::string& text) {
            int64_t value = 0;
            const char* const end = text.data() + text.size();
            const auto [stop, ec] = std::from_chars(text.data(), end, value);
            if (ec == std::errc() && stop == end && value >= least) return std::string();
            if (ec == std::errc::result_out_of_range) return tool_quote(text) + " is too large a number";
            return fmt::format("{} is not a whole number {}", tool_quote(text),
                               least == 1 ? "above 0" : fmt::format("of at least {}", least));
        },
        "");
}
