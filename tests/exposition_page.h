// A page of figures in the text form, version 0.0.4, taken apart by its grammar and by what checkers of pages ask for
// beyond it. What is wrong is kept in words.
#pragma once

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace exposition_page {

using Labels = std::map<std::string, std::string>;

struct Sample {
    std::string name;
    Labels labels;
    double value = 0;
};

// Takes one thing after the other off a line; what is not there is nothing.
class Line {
public:
    explicit Line(std::string_view rest) : rest_(rest) {}

    bool is_at_end() const { return rest_.empty(); }
    bool take(std::string_view text) {
        const bool is_there = rest_.starts_with(text);
        rest_.remove_prefix(is_there ? text.size() : 0);
        return is_there;
    }
    // Of a family, where colons are letters, too, or of a label.
    std::string name(bool is_of_label) {
        const auto is_part = [&](char c, bool is_first) {
            const auto byte = static_cast<unsigned char>(c);
            return std::isalpha(byte) || c == '_' || (c == ':' && !is_of_label) || (!is_first && std::isdigit(byte));
        };
        size_t length = 0;
        while (length < rest_.size() && is_part(rest_[length], length == 0))
            ++length;
        return until(length);
    }
    std::string rest() { return until(rest_.size()); }
    std::string word() { return until(std::min(rest_.find(' '), rest_.size())); }
    // Behind its first quotation mark, and with its last one.
    std::optional<std::string> quoted() {
        std::string text;
        while (!rest_.empty() && !rest_.starts_with('"')) {
            const auto c = unescaped('"');
            if (!c)
                return std::nullopt;
            text += *c;
        }
        return take("\"") ? std::optional(text) : std::nullopt;
    }
    // A help: no quotation marks are around it, so none is escaped.
    bool is_help() {
        while (!rest_.empty())
            if (!unescaped('\\'))
                return false;
        return true;
    }

private:
    std::optional<char> unescaped(char further) {
        if (!take("\\"))
            return until(1)[0];
        if (take("n"))
            return '\n';
        if (take("\\"))
            return '\\';
        return take(std::string(1, further)) ? std::optional(further) : std::nullopt;
    }
    std::string until(size_t length) {
        std::string text(rest_.substr(0, length));
        rest_.remove_prefix(length);
        return text;
    }

    std::string_view rest_;
};

class Page {
public:
    explicit Page(const std::string &text) {
        if (!text.ends_with('\n'))
            fault("the last line has no end", "");
        for (size_t begin = 0, end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
            take_line(text.substr(begin, end - begin));
        for (const auto &[name, type] : types_)
            if (type == "histogram")
                check_histogram(name);
    }

    const std::vector<std::string> &faults() const { return faults_; }
    bool has_family(const std::string &name) const { return types_.contains(name); }
    std::optional<double> value(const std::string &name, const Labels &labels = {}) const {
        for (const auto &sample : samples_)
            if (sample.name == name && sample.labels == labels)
                return sample.value;
        return std::nullopt;
    }

private:
    void fault(const std::string &what, const std::string &where) { faults_.push_back(what + ": " + where); }

    void take_line(const std::string &line) {
        Line rest(line);
        if (rest.take("# HELP "))
            take_help(line, rest);
        else if (rest.take("# TYPE "))
            take_type(line, rest);
        else if (!line.empty() && !rest.take("#"))
            take_sample(line);
    }

    void take_help(const std::string &line, Line rest) {
        help_ = rest.name(false);
        if (help_.empty() || !rest.take(" "))
            fault("no name stands behind HELP", line);
        if (types_.contains(help_))
            fault("a family comes twice", line);
        if (rest.is_at_end() || !rest.is_help())
            fault("no help in which backslashes are escaped", line);
    }

    void take_type(const std::string &line, Line rest) {
        static const std::set<std::string> known = {"counter", "gauge", "histogram", "summary", "untyped"};
        family_ = rest.name(false);
        if (family_ != help_)
            fault("the family of a type has no help before it", line);
        if (!rest.take(" "))
            fault("no name stands behind TYPE", line);
        const std::string type = rest.rest();
        if (!known.contains(type))
            fault("an unknown type", line);
        types_[family_] = type;
        if (family_.ends_with("_total") != (type == "counter"))
            fault("counters, and no others, end with _total", line);
        for (const char *reserved : {"_bucket", "_count", "_sum"})
            if (family_.ends_with(reserved))
                fault("a name that is a histogram's", line);
    }

    bool take_labels(Line &rest, Labels &labels) {
        if (!rest.take("{") || rest.take("}"))
            return true;
        do {
            const std::string name = rest.name(true);
            if (name.empty() || !rest.take("=\""))
                return false;
            const auto text = rest.quoted();
            if (!text || !labels.emplace(name, *text).second)
                return false;
        } while (rest.take(","));
        return rest.take("}");
    }

    static std::optional<double> number(const std::string &word) {
        static const std::map<std::string, double> named = {
            {"NaN", std::nan("")}, {"+Inf", HUGE_VAL}, {"-Inf", -HUGE_VAL}};
        if (named.contains(word))
            return named.at(word);
        if (word.empty() || word.find_first_not_of("+-.0123456789eE") != std::string::npos)
            return std::nullopt;
        char *end = nullptr;
        const double value = strtod(word.c_str(), &end);
        return *end == '\0' ? std::optional(value) : std::nullopt;
    }

    void take_sample(const std::string &line) {
        Line rest(line);
        Sample sample;
        sample.name = rest.name(false);
        if (sample.name.empty() || !take_labels(rest, sample.labels) || !rest.take(" "))
            return fault("no sample", line);
        const auto value = number(rest.word());
        const bool is_timed = rest.take(" ");
        const std::string moment = rest.rest();
        if (!value || is_timed == moment.empty() || moment.find_first_not_of("-0123456789") != std::string::npos)
            return fault("no value", line);
        sample.value = *value;
        if (family_of(sample) != family_ || family_.empty())
            fault("a sample stands outside its family", line);
        if (this->value(sample.name, sample.labels))
            fault("a series comes twice", line);
        samples_.push_back(sample);
    }

    std::string family_of(const Sample &sample) const {
        if (types_.contains(family_) && types_.at(family_) == "histogram")
            for (const char *suffix : {"_bucket", "_sum", "_count"})
                if (sample.name == family_ + suffix)
                    return (sample.name == family_ + "_bucket") == sample.labels.contains("le") ? family_ : "";
        return types_.contains(sample.name) && types_.at(sample.name) != "histogram" ? sample.name : "";
    }

    struct Buckets {
        double bound = -HUGE_VAL;
        double count = 0;
    };

    // Of each set of labels: bounds that grow, counts that do not shrink, and a last one that is the count of all.
    void check_histogram(const std::string &family) {
        std::map<Labels, Buckets> seen;
        for (const auto &sample : samples_) {
            if (sample.name != family + "_bucket" || !sample.labels.contains("le"))
                continue;
            Labels others = sample.labels;
            const auto bound = number(others["le"]);
            others.erase("le");
            Buckets &before = seen[others];
            if (!bound || !(*bound > before.bound) || sample.value < before.count)
                fault("buckets out of order", family + " le=" + sample.labels.at("le"));
            before = {bound.value_or(before.bound), sample.value};
        }
        for (const auto &[labels, last] : seen) {
            if (last.bound != HUGE_VAL)
                fault("a histogram without the bucket of all", family);
            if (value(family + "_count", labels) != last.count)
                fault("a histogram whose count is not that of its last bucket", family);
            if (!value(family + "_sum", labels))
                fault("a histogram without a sum", family);
        }
        for (const auto &sample : samples_)
            if (sample.name == family + "_count" && !seen.contains(sample.labels))
                fault("a histogram without buckets", family);
    }

    std::string help_;
    std::string family_;
    std::map<std::string, std::string> types_;
    std::vector<Sample> samples_;
    std::vector<std::string> faults_;
};

} // namespace exposition_page
