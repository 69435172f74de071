/*
 * environment: an environment variable as a test wants it, and afterwards as it was.
 */
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace kolmo::testing
{

class EnvironmentVariable
{
public:
    /* Sets the variable, or unsets it for a null value. */
    EnvironmentVariable(const char *name, const char *value) : name_(name), saved_(get()) { set(value); }
    ~EnvironmentVariable() { set(saved_ ? saved_->c_str() : nullptr); }
    EnvironmentVariable(const EnvironmentVariable &) = delete;
    EnvironmentVariable &operator=(const EnvironmentVariable &) = delete;

    /* The value that it has now, nothing when it is unset. */
    [[nodiscard]] std::optional<std::string> get() const
    {
        const char *value = std::getenv(name_.c_str());

        return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
    }

private:
    void set(const char *value) const
    {
        if (value != nullptr)
            (void)setenv(name_.c_str(), value, 1);
        else
            (void)unsetenv(name_.c_str());
    }

    std::string name_;
    std::optional<std::string> saved_;
};

} // namespace kolmo::testing
