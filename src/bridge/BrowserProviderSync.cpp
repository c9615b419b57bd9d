#include "bridge/BrowserProviderSync.h"

#include "bridge/FileSystemError.h"
#include "bridge/RequestStore.h"
#include "config/ConfigurationStore.h"

#include <QDebug>

namespace velnora {

BrowserProviderSync::BrowserProviderSync(ConfigurationStore& configuration, RequestStore& store,
                                         QObject* parent)
    : QObject(parent), m_configuration(configuration), m_store(store),
      m_provider(configuration.browserProvider())
{
    connect(&configuration, &ConfigurationStore::configurationDidChange, this,
            &BrowserProviderSync::configurationChanged);
}

void BrowserProviderSync::configurationChanged()
{
    const BrowserProvider provider = m_configuration.browserProvider();
    if (provider == m_provider) {
        return;
    }
    m_provider = provider;
    try {
        m_store.removePending(BridgeRequestType::setBrowserProvider);
        m_store.enqueue(BridgeRequestType::setBrowserProvider, std::nullopt, rawValue(provider));
    } catch (const FileSystemError& error) {
        // Requests still name their provider; only those that name none miss the new choice.
        qWarning().noquote() << QStringLiteral("网页服务的选择没能告诉浏览器扩展：") + error.description();
    }
}

} // namespace velnora
