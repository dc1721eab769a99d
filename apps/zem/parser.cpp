// See parser.h.
#include "apps/zem/parser.h"

#include <CLI/CLI.hpp>

#include <sstream>
#include <utility>

#include "apps/zem/manual.h"
#include "apps/zem/usage.h"

namespace zem {

const CArgument& CArgument::Required() const {
    m_option->required();
    return *this;
}

const CArgument& CArgument::File() const {
    m_option->type_name(kTypeFile);
    return *this;
}

const CArgument& CArgument::Check(const ValueCheck& check) const {
    m_option->transform(CLI::Validator(check.problem, check.bounds));
    return *this;
}

const CArgument& CArgument::ShowDefault() const {
    m_option->capture_default_str();
    return *this;
}

const CArgument& CArgument::Environment(const char* name) const {
    m_option->envname(name);
    return *this;
}

const CArgument& CArgument::Excludes(const CArgument& other) const {
    m_option->excludes(other.m_option);
    return *this;
}

CArgument CVerb::Option(const char* names, const char* type, std::string& value,
                        const char* help) const {
    return CArgument(*m_app->add_option(names, value, help)->type_name(type));
}

CArgument CVerb::Option(const char* names, const char* type, uint32_t& value,
                        const char* help) const {
    return CArgument(*m_app->add_option(names, value, help)->type_name(type));
}

CArgument CVerb::Option(const char* names, const char* type, int32_t& value,
                        const char* help) const {
    return CArgument(*m_app->add_option(names, value, help)->type_name(type));
}

CArgument CVerb::Option(const char* names, const char* type, double& value,
                        const char* help) const {
    return CArgument(*m_app->add_option(names, value, help)->type_name(type));
}

CArgument CVerb::Flag(const char* names, bool& given, const char* help) const {
    return CArgument(*m_app->add_flag(names, given, help));
}

CArgument CVerb::Place(const char* name, std::string& value, const char* help) const {
    return CArgument(*m_app->add_option(name, value, help));
}

CArgument CVerb::Place(const char* name, std::vector<std::string>& values, const char* help) const {
    return CArgument(*m_app->add_option(name, values, help));
}

CVerb CVerb::Add(const char* name, const char* help, const char* group,
                 std::function<void()> chosen) const {
    CLI::App& verb = *m_app->add_subcommand(name, help);
    verb.group(group)->callback(std::move(chosen));
    return CVerb(verb);
}

CVerb CVerb::AddParent(const char* name, const char* help, const char* group) const {
    CLI::App& verb = *m_app->add_subcommand(name, help);
    verb.group(group)->require_subcommand(0, 1);
    return CVerb(verb);
}

void CVerb::SetFooter(const std::string& text) const {
    m_app->footer(text);
}

CParser::CParser(const char* name, const char* help)
    : m_app(std::make_unique<CLI::App>(help, name)) {
    SetHelpForm(*m_app);
    m_app->require_subcommand(0, 1);
    m_app->fallthrough();
}

CParser::~CParser() = default;

void CParser::AddVersion(const std::string& text) {
    m_app->set_version_flag("--version", text);
}

ParseResult CParser::Parse(std::span<const char* const> arguments) {
    try {
        m_app->parse(static_cast<int>(arguments.size()), arguments.data());
        return {};
    } catch (const CLI::ParseError& error) {
        // Help and version come as errors, too.
        if (error.get_exit_code() != 0) return {ParseEnd::kWrong, UsageText(*m_app, error)};
        const bool version = dynamic_cast<const CLI::CallForVersion*>(&error) != nullptr;
        std::ostringstream text;
        m_app->exit(error, text, text);
        return {version ? ParseEnd::kVersion : ParseEnd::kHelp, text.str()};
    }
}

std::string CParser::WhatIsMissing() const {
    return UsageText(*m_app, CLI::RequiredError("a verb"));
}

}  // namespace zem
