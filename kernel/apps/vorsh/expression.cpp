// Numbers and conditions.
#include <limits.h>

#include "kernel/apps/vorsh/script.h"
#include "kernel/core/string.h"

namespace {

bool to_number(vorsh_script_t* script, const char* word, int* out) {
    return safe_atoi(word, out) == 0 || vorsh_fail(script, "'%s' is not a whole number", word);
}

bool in_range(vorsh_script_t* script, int64_t value) {
    return (value >= -INT_MAX && value <= INT_MAX) ||
           vorsh_fail(script, "the result is beyond %d", INT_MAX);
}

bool multiply(vorsh_script_t* script, char op, int number, int64_t* product) {
    if (op == '*')
        *product *= number;
    else if (number == 0)
        return vorsh_fail(script, "division by zero");
    else if (op == '/')
        *product /= number;
    else
        *product %= number;
    return in_range(script, *product);
}

bool compare(const char* op, int order, bool* result) {
    if (strcmp(op, "==") == 0)
        *result = order == 0;
    else if (strcmp(op, "!=") == 0)
        *result = order != 0;
    else if (strcmp(op, "<") == 0)
        *result = order < 0;
    else if (strcmp(op, "<=") == 0)
        *result = order <= 0;
    else if (strcmp(op, ">") == 0)
        *result = order > 0;
    else if (strcmp(op, ">=") == 0)
        *result = order >= 0;
    else
        return false;
    return true;
}

}  // namespace

bool vorsh_compute(vorsh_script_t* script, char** words, int count, int* result) {
    int number = 0;
    if (count % 2 == 0)
        return vorsh_fail(script, "expr needs: NAME A [OP B]...");
    if (!to_number(script, words[0], &number))
        return false;
    int64_t sum = 0;
    int64_t product = number;
    for (int i = 1; i < count; i += 2) {
        const char op = words[i][1] == '\0' ? words[i][0] : '\0';
        if (op == '\0' || strchr("+-*/%", op) == nullptr)
            return vorsh_fail(script, "'%s' is none of + - * / %%", words[i]);
        if (!to_number(script, words[i + 1], &number))
            return false;
        if (op == '+' || op == '-') {
            sum += product;
            product = op == '+' ? number : -number;
            if (!in_range(script, sum))
                return false;
        } else if (!multiply(script, op, number, &product)) {
            return false;
        }
    }
    if (!in_range(script, sum + product))
        return false;
    *result = static_cast<int>(sum + product);
    return true;
}

bool vorsh_judge(vorsh_script_t* script, char** words, int count, bool* result) {
    if (count == 1) {
        *result = words[0][0] != '\0' && strcmp(words[0], "0") != 0;
        return true;
    }
    if (count != 3)
        return vorsh_fail(script, "a condition is: A OP B, or one word");
    const char* op = words[1];
    int a = 0;
    int b = 0;
    const bool numbers = safe_atoi(words[0], &a) == 0 && safe_atoi(words[2], &b) == 0;
    const bool for_texts = strcmp(op, "==") == 0 || strcmp(op, "!=") == 0;
    if (!numbers && !for_texts) {
        const bool known = compare(op, 0, result);
        return known ? to_number(script, words[0], &a) && to_number(script, words[2], &b)
                     : vorsh_fail(script, "'%s' is none of == != < <= > >=", op);
    }
    const int order = numbers ? (a > b) - (a < b) : strcmp(words[0], words[2]);
    return compare(op, order, result) || vorsh_fail(script, "'%s' is none of == != < <= > >=", op);
}
