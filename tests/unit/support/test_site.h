// An installation of its own in a scratch directory, and environment variables that are put back.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

class ScopedEnv {
public:
    ScopedEnv(const char *name, const char *value) : name_(name) {
        if (const char *old = getenv(name))
            old_ = old;
        if (value != nullptr)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~ScopedEnv() {
        if (old_)
            setenv(name_.c_str(), old_->c_str(), 1);
        else
            unsetenv(name_.c_str());
    }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

class TestSite {
public:
    TestSite() : root_(make_root()), env_("VELIA_ROOT", root_.c_str()) {}
    ~TestSite() { std::filesystem::remove_all(root_); }
    TestSite(const TestSite &) = delete;
    TestSite &operator=(const TestSite &) = delete;

    std::string path(const std::string &below_root) const { return root_ + "/" + below_root; }

    std::string write(const std::string &below_root, const std::string &text) const {
        const std::filesystem::path file = path(below_root);
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text;
        return file;
    }

    std::string read(const std::string &below_root) const {
        std::ostringstream text;
        text << std::ifstream(path(below_root), std::ios::binary).rdbuf();
        return text.str();
    }

private:
    static std::string make_root() {
        char name[] = "/tmp/velia-support-XXXXXX";
        return mkdtemp(name);
    }

    std::string root_;
    ScopedEnv env_;
};
