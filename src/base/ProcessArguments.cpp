#include "base/ProcessArguments.h"

namespace velnora {

namespace {
const ProcessArguments* g_current = nullptr;
int g_noArgc = 0;
}

ProcessArguments::ProcessArguments(int& argc, char** argv) : m_argc(&argc), m_argv(argv)
{
    for (int i = 0; i < argc; ++i) {
        m_list.append(QString::fromLocal8Bit(argv[i]));
    }
}

ProcessArguments::ProcessArguments(QStringList arguments) : m_list(std::move(arguments)), m_argc(&g_noArgc) {}

std::optional<QString> ProcessArguments::valueAfter(const QString& flag) const
{
    const qsizetype index = m_list.indexOf(flag);
    if (index < 0 || index + 1 >= m_list.size()) {
        return std::nullopt;
    }
    return m_list.at(index + 1);
}

const ProcessArguments& ProcessArguments::current()
{
    static const ProcessArguments empty{QStringList{}};
    return g_current ? *g_current : empty;
}

void ProcessArguments::setCurrent(const ProcessArguments& arguments)
{
    g_current = &arguments;
}

} // namespace velnora
