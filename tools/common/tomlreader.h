// tomlreader.h - reads TOML tables strictly, with the line of whatever is wrong.
//
// Every table is read by naming the keys that it may have; what is left over is unknown and refused. A reader
// of one file derives from it. By default the first mistake ends the reading; with a list of problems the
// reading goes on behind a mistake, so that a check can tell them all.
#pragma once

#include "failure.h"

#include <toml++/toml.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

// One line to tell, or 0 for the file as a whole, and what is to be told of it.
struct Problem {
    unsigned uLine;
    std::string what; // without the file and the line
};

class TomlReader
{
protected:
    TomlReader(const std::string& file, std::vector<Problem>* pProblems)
        : m_file(file), m_pProblems(pProblems)
    {
    }

    // The text as a table. Fails (InputError): no TOML.
    static toml::table ParseText(const std::string& file, std::string_view text);

    static unsigned LineOf(const toml::node& node) { return node.source().begin.line; }

    [[noreturn]] void Fail(unsigned uLine, const std::string& what) const;
    [[noreturn]] void Fail(const toml::node& node, const std::string& what) const
    {
        Fail(LineOf(node), what);
    }

    // Runs one part of the reading; its mistake goes to the list of problems, when there is one.
    template <typename Part> void Try(Part part) const
    {
        try {
            part();
        } catch (const InputError& error) {
            if (!m_pProblems)
                throw;
            m_pProblems->push_back({error.Line(), WithoutPlace(error)});
        }
    }
    // Likewise for what stands in another file, which that line names.
    template <typename Part> void TryAt(unsigned uLine, Part part) const
    {
        try {
            part();
        } catch (const InputError& error) {
            if (!m_pProblems)
                throw;
            m_pProblems->push_back({uLine, error.what()});
        }
    }
    bool TellsAll() const { return m_pProblems != nullptr; }
    void Tell(Problem problem) const { m_pProblems->push_back(std::move(problem)); }

    void RefuseUnknownKeys(const toml::table& table, std::initializer_list<std::string_view> known,
                           const char* pWhere) const;
    uint32_t NumberOf(const toml::node& node, std::string_view name, uint32_t ulMost = 0xFFFFFFFF) const;
    const std::string& TextOf(const toml::node& node, std::string_view name) const;
    // pWhat: what stands there, without "in brackets".
    const toml::array& ArrayOf(const toml::node& node, const char* pWhat) const;
    // An array of tables; pWhat: "definitions are tables: [[definition]]".
    const toml::array& TablesOf(const toml::node& node, const char* pWhat) const;

    std::string m_file;

private:
    std::string WithoutPlace(const InputError& error) const;

    std::vector<Problem>* m_pProblems;
};
