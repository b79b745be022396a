// Plays texts that show calls of a bundle's functions and what they do: calls [--accept] FILE
//
//     == what holds               begins a case, in a process and on a database of its own
//     - statement                 is run; what it gives follows
//     > statement                 the same with its events: stores, allocations, reports and traces
//     (test_handle.h) ! statement                 is run in a child, which it must end; the signal and the traces
//     of level 0 follow # words                     are for the reader
//
// The statements before the first case are run in every case. A statement is a call: the function's name, then its
// arguments without handle and domain in front and the error behind, of which a chain (`_cr`) has the handle
// alone.
//
//     rec = string_key_create     binds the result; a block that begins there gets the name
//     u32 ud_flag_in_range 9      shows the result: u8 u16 u32 i32 u64 f64 ptr (what is named there) str
//     raw ud_flag_in_range 9      the arguments are all; `h`, `d` and `err` are handle, domain and error
//     show u32 rec+8              what lies there; of a named range its type may be left out
//     lines_of buffer 40          a text of that length
//     where rec+8                 what is named there
//     put u8 rec+8 1              stores, as the test itself
//     quietly ...                 its stores need no announcement
//     alias rec string_key        from now on rec_create is string_key_create
//     this ; that                 in one line
//     def twice "this $1 ; this $2"    from now on `twice a b` is `this a ; this b`
//     for name in a b: ...        with $name in place of each word; those that give the same stand together
//
// Arguments: numbers, "texts", names with +offset, *name (the word there), &name (the name's own cell), [1,2]
// (bytes), {texts} (a loom_vstring), room:9 (that many bytes of 0xEE), @name (an exported function). An error is
// shown and cleared; one that is pending stays (`pending 5`). Behind each case stores that nobody announced and
// blocks in use are shown, and none is when all is well.
#include "tests/support/test_handle.h"

#include <loom/values.h>
#include <loom_runtime/xml.h>

#include <algorithm>
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>

namespace {

using namespace trellis::testing;
using trellis::i32;
using trellis::u16;
using trellis::u32;
using trellis::u64;
using trellis::u8;
using words = std::vector<std::string>;
using lines = std::vector<std::string>;

/// Words are divided by blanks outside of quotes and braces.
words words_of(const std::string& text) {
    words all;
    bool open = false;
    char closing = 0;
    for (const char each : text) {
        if (closing == 0 && each == ' ') {
            open = false;
            continue;
        }
        if (!open) all.emplace_back();
        open = true;
        all.back() += each;
        if (closing == 0)
            closing = each == '"' || each == '\'' ? each : each == '{' ? '}' : '\0';
        else if (each == closing)
            closing = 0;
    }
    return all;
}

[[noreturn]] void fail(const std::string& what) {
    std::cout << "cannot be played: " << what << std::endl;
    _exit(1);
}

std::map<std::string, std::string> aliases; // first words of functions' names

void* exported(const std::string& name) {
    void* found = dlsym(RTLD_DEFAULT, name.c_str());
    for (const auto& [alias, meant] : aliases)
        if (found == nullptr && name.rfind(alias + "_", 0) == 0)
            found = dlsym(RTLD_DEFAULT, (meant + name.substr(alias.size())).c_str());
    if (found == nullptr) fail("no function " + name);
    return found;
}

std::string replaced(std::string text, const std::string& what, const std::string& by) {
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
        text.replace(at, what.size(), by);
    return text;
}

/// A number as an integer of some bytes of it, or as hexadecimal digits when it is no integer.
std::string shown(const std::string& type, const void* at, size_t length) {
    u64 bits = 0;
    memcpy(&bits, at, length > 8 ? 8 : length);
    if (type == "f64") {
        double real;
        memcpy(&real, at, 8);
        std::ostringstream text;
        text << real;
        return text.str();
    }
    if (type == "i32") return std::to_string(static_cast<i32>(bits));
    if (type != "bytes") return std::to_string(bits);
    if (length > 16 && memcmp(at, static_cast<const u8*>(at) + 1, length - 1) == 0)
        return std::to_string(length) + " times " + std::to_string(*static_cast<const u8*>(at));
    std::string digits;
    for (size_t i = 0; i < length; ++i) {
        char two[3];
        snprintf(two, sizeof two, "%02x", static_cast<const u8*>(at)[i]);
        digits += two;
    }
    return digits;
}
size_t length_of(const std::string& type) {
    if (type.rfind("bytes:", 0) == 0) return std::stoul(type.substr(6));
    return type == "u8" ? 1 : type == "u16" ? 2 : type == "u32" || type == "i32" ? 4 : 8;
}

/// Runs the body in a child and returns what it wrote.
std::string output_of_child(const std::function<void()>& body, int* status) {
    std::cout << std::flush;
    int ends[2];
    if (pipe(ends) != 0) abort();
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        dup2(ends[1], STDOUT_FILENO);
        body();
        _exit(0);
    }
    close(ends[1]);
    std::string all;
    char part[4096];
    for (ssize_t got; (got = read(ends[0], part, sizeof part)) > 0;)
        all.append(part, static_cast<size_t>(got));
    close(ends[0]);
    waitpid(child, status, 0);
    return all;
}

class stage {
  public:
    /// Runs a line of the text and writes down what it gives.
    void play(const std::string& line) {
        const std::string statement = line.substr(2);
        if (statement.rfind("for ", 0) == 0) return repeat(line);
        if (line[0] == '!') return die(statement);
        std::string log;
        if (line[0] == '>')
            log = handle().log_of([&] { run_all(statement); });
        else
            run_all(statement);
        std::cout << log << results_;
        results_.clear();
    }
    /// What the handle that is open leaves behind.
    std::string left() {
        if (handle_ == nullptr) return "";
        if (lasting_) handle().forget_blocks();
        std::istringstream wrong(handle().take_violations() + handle().describe_live_blocks());
        std::string all;
        for (std::string each; std::getline(wrong, each);)
            all += "left: " + each + "\n";
        return all;
    }

  private:
    test_handle& handle() {
        if (handle_ == nullptr) fail("no handle is open");
        return *handle_;
    }

    void repeat(const std::string& line) {
        const words head = words_of(line.substr(2, line.find(": ") - 2));
        const lines bodies = loop(line.substr(2));
        std::string together, earlier;
        const auto tell = [&] {
            if (!earlier.empty()) std::cout << together << ":\n" << earlier;
            together.clear();
        };
        for (size_t i = 0; i < bodies.size(); ++i) {
            std::ostringstream now;
            auto* const out = std::cout.rdbuf(now.rdbuf());
            play(line.substr(0, 2) + bodies[i]);
            std::cout.rdbuf(out);
            if (i > 0 && now.str() != earlier) tell();
            together += (together.empty() ? "" : " ") + head[i + 3];
            earlier = now.str();
        }
        tell();
    }

    void die(const std::string& statement) {
        int status = 0;
        std::istringstream said(output_of_child(
            [&] {
                dup2(STDOUT_FILENO, STDERR_FILENO);
                loom_trace_set_tap(
                    [](const loom_trace_record* record, void*) {
                        char text[512];
                        loom_trace_format(trace_decoder(), record, text, sizeof text);
                        if (record->level == 0) std::cout << "says 0 " << text << std::endl;
                    },
                    nullptr);
                run_all(statement);
            },
            &status));
        for (std::string line; std::getline(said, line);) {
            if (line.empty()) continue;
            const size_t assertion = line.find("Assertion"); // behind program, file and line
            std::cout << (assertion == std::string::npos ? line : line.substr(assertion)) << "\n";
        }
        std::cout << (WIFSIGNALED(status) ? "ends by signal " + std::to_string(WTERMSIG(status)) : "goes on")
                  << "\n";
    }

    void run_all(const std::string& statements) {
        if (statements.rfind("for ", 0) == 0) {
            for (const std::string& each : loop(statements))
                run_all(each);
            return;
        }
        const bool defines = statements.rfind("def ", 0) == 0;
        const size_t end = defines ? std::string::npos : statements.find(" ; ");
        const words of = words_of(statements.substr(0, end));
        if (const auto known = definitions_.find(of[0]); known != definitions_.end()) {
            std::string body = known->second;
            for (size_t i = 1; i < of.size(); ++i)
                body = replaced(body, "$" + std::to_string(i), of[i]);
            run_all(body);
        } else {
            run(of);
            settle();
        }
        if (end != std::string::npos) run_all(statements.substr(end + 3));
    }
    /// The bodies of a `for`, one for each word.
    static lines loop(const std::string& statement) {
        const size_t colon = statement.find(": ");
        const words head = words_of(statement.substr(0, colon)); // for NAME in WORDS
        lines bodies;
        for (size_t i = 3; i < head.size(); ++i)
            bodies.push_back(replaced(statement.substr(colon + 2), "$" + head[1], head[i]));
        return bodies;
    }
    /// What a statement leaves in the error cells is shown.
    void settle() {
        if (handle_ == nullptr) return;
        handle().end_operation();
        if (error_ != 0) results_ += "err " + std::to_string(error_) + "\n";
        error_ = pending_;
        const u32 last = handle()->last_error;
        if (last != last_ && last != 0) results_ += "last " + std::to_string(last) + "\n";
        last_ = last;
    }

    void run(words of) {
        if (of[0] == "quietly") {
            of.erase(of.begin());
            const test_handle::unannounced quiet(handle(), "the text says so");
            return run(of);
        }
        if (command(of)) return;
        std::string name, type;
        if (of.size() > 2 && of[1] == "=") {
            name = of[0];
            of.erase(of.begin(), of.begin() + 2);
        }
        if (name.empty() || of[0] == "u32") {
            static const words types = {"u8", "u16", "u32", "i32", "u64", "f64", "ptr", "str"};
            if (std::find(types.begin(), types.end(), of[0]) != types.end()) {
                type = of[0];
                of.erase(of.begin());
            }
        }
        const u64 result = called(of, type);
        if (!name.empty()) bind(name, type == "u32" ? static_cast<u32>(result) : result);
        if (!type.empty() && name.empty()) results_ += "= " + in_words(type, result) + "\n";
        for (const std::string& each : given_)
            bind(each, values_[each]);
        given_.clear();
    }

    u64 called(words of, const std::string& type) {
        const bool raw = of[0] == "raw";
        if (raw) of.erase(of.begin());
        const std::string function = of[0];
        std::vector<u64> integers;
        std::vector<double> reals;
        if (!raw) {
            integers.push_back(reinterpret_cast<u64>(handle().get()));
            if (!function.ends_with("_cr")) integers.push_back(domain_);
        }
        bool error_placed = raw;
        for (size_t i = 1; i < of.size(); ++i) {
            char* end = nullptr;
            const double real = strtod(of[i].c_str(), &end);
            if (of[i].find('.') != std::string::npos && *end == '\0')
                reals.push_back(real);
            else
                integers.push_back(value_of(of[i]));
            error_placed = error_placed || of[i] == "err";
        }
        if (!error_placed) integers.push_back(reinterpret_cast<u64>(&error_));
        integers.resize(12);
        reals.resize(2);
        return call(exported(function), integers, reals, type == "f64");
    }

    /// The calling convention takes what is not wanted for what nobody asks for.
    static u64 call(void* function, const std::vector<u64>& n, const std::vector<double>& r, bool real) {
        const auto with = [&]<class Result>(Result (*f)(u64, u64, u64, u64, u64, u64, u64, u64, u64, u64, u64, u64,
                                                        double, double)) {
            return f(n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7], n[8], n[9], n[10], n[11], r[0], r[1]);
        };
        using integer_function = u64(u64, u64, u64, u64, u64, u64, u64, u64, u64, u64, u64, u64, double, double);
        using real_function = double(u64, u64, u64, u64, u64, u64, u64, u64, u64, u64, u64, u64, double, double);
        if (!real) return with(reinterpret_cast<integer_function*>(function));
        const double result = with(reinterpret_cast<real_function*>(function));
        u64 bits;
        memcpy(&bits, &result, sizeof bits);
        return bits;
    }

    std::string in_words(const std::string& type, u64 value) {
        if (type == "ptr") return handle().name_of(reinterpret_cast<const void*>(value));
        if (type == "str") return value == 0 ? "null" : "\"" + std::string(reinterpret_cast<char*>(value)) + "\"";
        return shown(type, &value, length_of(type));
    }

    void bind(const std::string& name, u64 value) {
        values_[name] = value;
        if (value == 0) {
            results_ += name + " = 0\n";
            return;
        }
        handle().name_block(reinterpret_cast<const void*>(value), name);
    }

    u64 value_of(const std::string& word) {
        if (word[0] == '"' || word[0] == '\'') return keep(word.substr(1, word.size() - 2));
        if (word[0] == '*') {
            u64 there;
            memcpy(&there, reinterpret_cast<const void*>(value_of(word.substr(1))), sizeof there);
            return there;
        }
        if (word[0] == '&') {
            given_.push_back(word.substr(1));
            return reinterpret_cast<u64>(&values_[given_.back()]);
        }
        if (word[0] == '@') return reinterpret_cast<u64>(exported(word.substr(1)));
        if (word[0] == '[' || word[0] == '{') return composed(word);
        if (word.rfind("room:", 0) == 0) return keep(std::string(std::stoul(word.substr(5)), '\xEE'));
        if (word == "h") return reinterpret_cast<u64>(handle().get());
        if (word == "d") return domain_;
        if (word == "err") return reinterpret_cast<u64>(&error_);
        if (word == "null") return 0;
        return number_of(word);
    }

    /// A number, or the value of a name, or the address of a named range, with what is added.
    u64 number_of(const std::string& word) {
        if (const auto known = values_.find(word); known != values_.end()) return known->second;
        char* end = nullptr;
        const u64 number = strtoull(word.c_str(), &end, 0);
        if (*end == '\0') return number;
        if (const void* range = handle_ == nullptr ? nullptr : handle().address_of(word, nullptr))
            return reinterpret_cast<u64>(range);
        const size_t plus = word.rfind('+');
        if (plus == std::string::npos) fail("what is " + word);
        return value_of(word.substr(0, plus)) + number_of(word.substr(plus + 1));
    }

    u64 composed(const std::string& word) {
        const std::string inside = word.substr(1, word.size() - 2);
        std::string bytes(sizeof(loom_vstring), '\0');
        if (word[0] == '{') {
            const loom_vstring text{reinterpret_cast<char*>(keep(inside)), static_cast<u32>(inside.size()), 0};
            memcpy(bytes.data(), &text, sizeof text);
            return keep(bytes);
        }
        bytes.clear();
        std::istringstream each(inside);
        for (std::string number; std::getline(each, number, ',');)
            bytes += static_cast<char>(std::stoul(number, nullptr, 0));
        return keep(bytes);
    }
    u64 keep(std::string bytes) { return reinterpret_cast<u64>(kept_.emplace_back(std::move(bytes)).data()); }

    /// What is no call.
    bool command(const words& of) {
        const std::string& name = of[0];
        const auto number = [&](size_t at) { return at < of.size() ? value_of(of[at]) : 0; };
        if (name == "open")
            open(of);
        else if (name == "show")
            show(of);
        else if (name == "put")
            put(of);
        else if (name == "where")
            results_ += "= " + handle().name_of(reinterpret_cast<const void*>(number(1))) + "\n";
        else if (name == "alias")
            aliases[of[1]] = of[2];
        else if (name == "def")
            definitions_[of[1]] = of[2].substr(1, of[2].size() - 2);
        else if (name == "let")
            values_[of[1]] = number(2);
        else if (name == "name")
            handle().name(reinterpret_cast<const void*>(number(1)), number(2), of[3]);
        else if (name == "domain")
            domain_ = static_cast<u32>(number(1));
        else if (name == "pending")
            error_ = pending_ = static_cast<u32>(number(1));
        else if (name == "last")
            last_ = handle()->last_error = static_cast<u32>(number(1));
        else if (name == "fail")
            handle().fail_allocation(number(1));
        else if (name == "track")
            loom_set_tracking(handle(), static_cast<u32>(number(1)));
        else if (name == "corrupt")
            handle()->sttr_block->sttr_mode = static_cast<decltype(handle()->sttr_block->sttr_mode)>(number(1));
        else if (name == "limit")
            limit(of[1].c_str(), static_cast<i32>(number(2)));
        else if (name == "lines_of")
            lines_of(reinterpret_cast<const char*>(number(1)), number(2));
        else if (name == "blocks")
            results_ += "= " + std::to_string(handle().live_blocks()) + " blocks\n";
        else if (name == "forget")
            handle().forget_blocks();
        else if (name == "refuse")
            handle().refuse_ranges();
        else if (name == "number_statements")
            handle().number_statements();
        else if (name == "tenant")
            loom_set_tenant(static_cast<u16>(number(1)));
        else
            return name == "traces" ? (add_trace_texts_of(exported(of[1])), true) : false;
        return true;
    }

    /// open mapped|manifested|private off|tracked containment checked lasting; what is not named is not so.
    void open(const words& of) {
        handle_options options{};
        for (const std::string& each : of) {
            if (each == "mapped") options.db_kind = LOOM_DB_MAPPED;
            if (each == "manifested") options.db_kind = LOOM_DB_PRIVATE_MANIFESTED;
            if (each == "off") options.tracking = LOOM_TRACKING_OFF;
            if (each == "tracked") options.tracking = LOOM_TRACKING_ON;
            if (each == "containment") options.containment = true;
            if (each == "checked") options.check_stores = true;
            if (each == "lasting") lasting_ = true;
        }
        results_ += left();
        handle_.reset();
        handle_ = std::make_unique<test_handle>(options);
    }

    void limit(const char* type, i32 variant) {
        if (peer_ == nullptr) peer_ = loom_peer_create_same_build("older");
        loom_peer_limit(peer_, type, variant);
        loom_set_peer(handle(), peer_);
    }

    void show(const words& of) {
        if (of.size() == 2) {
            size_t length = 0;
            if (handle().address_of(of[1], &length) == nullptr) fail("no range " + of[1]);
            const std::string type = "u" + std::to_string(8 * length);
            results_ += "= " + shown(type, handle().address_of(of[1], nullptr), length) + "\n";
            return;
        }
        const void* at = reinterpret_cast<const void*>(value_of(of[2]));
        if (of[1] == "str" || of[1] == "ptr")
            results_ += "= " + in_words(of[1], of[1] == "str" ? value_of(of[2]) : value_of("*" + of[2])) + "\n";
        else
            results_ += "= " + shown(of[1].substr(0, of[1].find(':')), at, length_of(of[1])) + "\n";
    }
    /// A text, in which terminators of nested lines count as blanks.
    void lines_of(const char* text, u64 length) {
        for (u64 i = 0; i < length; ++i)
            results_ += text[i] == '\0' ? ' ' : text[i];
        if (results_.back() != '\n') results_ += '\n';
    }
    void put(const words& of) {
        const test_handle::unannounced quiet(handle(), "the text itself");
        const u64 value = value_of(of[3]);
        memcpy(reinterpret_cast<void*>(value_of(of[2])), &value, length_of(of[1]));
    }

    std::unique_ptr<test_handle> handle_;
    loom_peer* peer_ = nullptr;
    std::map<std::string, u64> values_;
    std::deque<std::string> kept_;
    std::map<std::string, std::string> definitions_;
    words given_; // names whose cells were given away
    std::string results_;
    bool lasting_ = false; // blocks stay in use behind a case, as those of tables do
    u32 domain_ = test_handle::domain, error_ = 0, pending_ = 0, last_ = 0;
};

} // namespace

/// For texts: how many references lead to an object.
extern "C" u64 references_to(loom_handle* handle, u32, const void* object) {
    loom_oid_state state{};
    return loom_oid_mapping_state(handle, object, &state) == 0 ? state.count : 0;
}

/// For texts: a document.
extern "C" loom_xml_document* parsed(loom_handle*, u32, const char* text) {
    return loom_xml_parse(text, strlen(text), nullptr);
}

namespace {

bool is_statement(const std::string& line) {
    return line.size() > 2 && strchr("->!", line[0]) != nullptr && line[1] == ' ';
}

/// The lines of a case as they are when its statements are run now.
lines played(const lines& prologue, const lines& text) {
    int status = 0;
    const std::string all = output_of_child(
        [&] {
            stage here;
            for (const std::string& line : prologue)
                if (is_statement(line)) here.play(line);
            for (const std::string& line : text) {
                if (is_statement(line) || line[0] == '#') std::cout << line << "\n";
                if (is_statement(line)) here.play(line);
            }
            std::cout << here.left() << std::flush;
        },
        &status);
    lines now;
    std::istringstream in(all);
    for (std::string line; std::getline(in, line);)
        now.push_back(line);
    if (status != 0) fail("a case ends with status " + std::to_string(status) + " behind\n" + all);
    return now;
}

std::string played(const std::string& path) {
    std::ifstream in(path);
    if (!in) fail("there is no " + path);
    std::string now;
    lines prologue, text;
    std::optional<std::string> title;
    const auto finish = [&] {
        if (title) now += *title + "\n";
        for (const std::string& line : title ? played(prologue, text) : text)
            now += line + "\n";
        if (!title) prologue = text;
        text.clear();
    };
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("== ", 0) == 0) {
            finish();
            now += title ? "\n" : "";
            title = line;
        } else if (!title || !line.empty()) {
            text.push_back(line);
        }
    }
    finish();
    return now;
}

} // namespace

int main(int count, char** argument) {
    const bool accept = count == 3 && strcmp(argument[1], "--accept") == 0;
    if (count != 2 && !accept) fail("calls [--accept] FILE");
    const std::string path = argument[count - 1];
    std::cout << std::flush;
    const std::string now = played(path);
    std::ostringstream before;
    before << std::ifstream(path).rdbuf();
    if (before.str() == now) return 0;
    const std::string result = accept ? path : path.substr(path.rfind('/') + 1) + ".now";
    std::ofstream(result) << now;
    if (accept) return 0;
    const int ignored = system(("diff -u '" + path + "' '" + result + "'").c_str());
    std::cout << "to accept this: " << argument[0] << " --accept " << path << std::endl;
    return ignored == 0 ? 2 : 1;
}
