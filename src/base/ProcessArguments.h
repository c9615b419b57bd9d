#pragma once

#include <QStringList>
#include <optional>

namespace velnora {

// The process's argument vector, read once at start and shared by everything that needs it.
class ProcessArguments
{
public:
    ProcessArguments(int& argc, char** argv);
    explicit ProcessArguments(QStringList arguments); // for tests: no argc/argv to hand to Qt

    const QStringList& list() const { return m_list; }
    bool has(const QString& flag) const { return m_list.contains(flag); }
    // The element right after the first occurrence of the flag, if there is one.
    std::optional<QString> valueAfter(const QString& flag) const;

    // What QCoreApplication needs; valid for the life of the process.
    int& argc() const { return *m_argc; }
    char** argv() const { return m_argv; }

    // The arguments main() recorded; empty before that.
    static const ProcessArguments& current();
    static void setCurrent(const ProcessArguments& arguments);

private:
    QStringList m_list;
    int* m_argc = nullptr;
    char** m_argv = nullptr;
};

} // namespace velnora
