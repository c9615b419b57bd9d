#pragma once

#include "config/ProviderCatalog.h"

#include <QObject>

namespace velnora {

class ConfigurationStore;
class RequestStore;

// Tells the extension which chat site serves requests that name none: whenever the saved browser
// service changes, older unsent choices are withdrawn and one SET_BROWSER_PROVIDER is queued.
class BrowserProviderSync : public QObject
{
    Q_OBJECT
public:
    BrowserProviderSync(ConfigurationStore& configuration, RequestStore& store, QObject* parent = nullptr);

private:
    void configurationChanged();

    ConfigurationStore& m_configuration;
    RequestStore& m_store;
    BrowserProvider m_provider;
};

} // namespace velnora
