// Makes an image's table of functions (layout: ksym_t in kernel/core/ksyms.h): reads the output of
// `nm -S --defined-only` on standard input, writes assembler for section .ksyms on standard output.
#include <cxxabi.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct function_t {
    uint32_t size;
    std::string name;
};

/// By address; of several names for one address the first stands.
using functions_t = std::map<uint32_t, function_t>;

/// Drops every argument list from a demangled name, those of enclosing functions and lambdas too.
std::string without_arguments(const std::string& name) {
    const std::string call = "operator()";
    std::string kept;
    int depth = 0;
    for (size_t at = 0; at < name.size(); at++) {
        if (depth == 0 && name.compare(at, call.size(), call) == 0) {
            kept += call;
            at += call.size() - 1;
        } else if (name[at] == '(') {
            depth++;
        } else if (name[at] == ')') {
            depth--;
        } else if (depth == 0) {
            kept += name[at];
        }
    }
    return kept;
}

std::string readable(const std::string& symbol) {
    int status = 0;
    char* plain = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status);
    if (status != 0)
        return symbol;
    std::string name(plain);
    std::free(plain);
    const std::string unnamed = "(anonymous namespace)::";
    for (size_t at = name.find(unnamed); at != std::string::npos; at = name.find(unnamed))
        name.erase(at, unnamed.size());
    return without_arguments(name);
}

/// The functions among "address [size] type name" lines; assembler labels have no size.
functions_t read_functions(std::istream& in) {
    functions_t functions;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::vector<std::string> words;
        for (std::string word; fields >> word;)
            words.push_back(word);
        if (words.size() < 3 || std::string("tTwW").find(words.rbegin()[1]) == std::string::npos)
            continue;
        const auto hex = [](const std::string& digits) {
            return static_cast<uint32_t>(std::stoul(digits, nullptr, 16));
        };
        const uint32_t size = words.size() > 3 ? hex(words[1]) : 0;
        functions.try_emplace(hex(words[0]), function_t{size, words.back()});
    }
    return functions;
}

void write_table(const functions_t& functions) {
    uint32_t text_end = 0;
    size_t index = 0;
    std::printf(
        ".section .ksyms, \"a\", @progbits\n.balign 4\n.globl ksyms_count, ksyms_table\n"
        "ksyms_count:\n    .long %zu\nksyms_table:\n",
        functions.size() + 1);
    for (const auto& [address, function] : functions) {
        std::printf("    .long 0x%x, name_%zu\n", address, index++);
        text_end = std::max(text_end, address + std::max(function.size, 1u));
    }
    std::printf("    .long 0x%x, 0\n", text_end);
    index = 0;
    for (const auto& [address, function] : functions)
        std::printf("name_%zu: .asciz \"%s\"\n", index++, readable(function.name).c_str());
    std::printf(".section .note.GNU-stack, \"\", @progbits\n");
}

}  // namespace

int main() {
    const functions_t functions = read_functions(std::cin);
    if (functions.empty()) {
        std::fprintf(stderr, "ksyms: no functions on standard input\n");
        return 1;
    }
    write_table(functions);
    return 0;
}
