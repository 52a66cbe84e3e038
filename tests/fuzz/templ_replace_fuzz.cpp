// Templates, in an output buffer of exactly the size that is told. The input: a line with the
// opening and the closing character, the size, the options, lines "name=value" (or "name" for one
// without a value) up to an empty one, and the template.
#include "autoresponder/templates.h"
#include "fuzz.h"
#include "tests/twins/templates_twin.h"

#include <algorithm>
#include <vector>

namespace {

twin::Variables variables_of(fuzz::Fields& input) {
    twin::Variables variables;
    for (std::string line = input.line(); !line.empty(); line = input.line()) {
        const std::size_t equals = line.find('=');
        const std::string name = line.substr(0, equals).c_str(); // up to its first NUL
        variables[name] = std::nullopt;
        if (equals != std::string::npos)
            variables[name] = line.substr(equals + 1).c_str();
    }
    return variables;
}

// From the last name to the first, for templ_quick_sort to put in order.
std::vector<par_templ> table_of(const twin::Variables& variables) {
    std::vector<par_templ> table;
    for (auto variable = variables.rbegin(); variable != variables.rend(); ++variable)
        table.push_back(
            {variable->first.c_str(), variable->second ? variable->second->c_str() : nullptr});
    templ_quick_sort(table.data(), static_cast<int>(table.size()));
    return table;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Fields input(data, size);
    const std::string brackets = input.line() + std::string(2, '\0');
    const unsigned room = input.number() % 4096;
    repl_ctl control{1, 2, input.number(), 3};
    const twin::Variables variables = variables_of(input);
    const std::vector<par_templ> table = table_of(variables);
    const std::string source = input.rest().c_str();

    std::vector<char> output(std::max(1U, room), '\x01');
    templ_replace(brackets[0], brackets[1], table.data(), static_cast<unsigned>(table.size()),
                  source.c_str(), output.data(), room, &control);
    const twin::Substitution wanted =
        twin::substitute(brackets[0], brackets[1], variables, source, room, control.options);
    fuzz::expect_equal(std::string(output.data(), control.written), wanted.text, "text");
    fuzz::expect_equal(control.consumed, wanted.consumed, "consumed");
    fuzz::expect_equal(control.result, wanted.result, "result");
    if (wanted.is_terminated)
        fuzz::expect_equal(output[control.written], '\0', "end of the text");
    return 0;
}
