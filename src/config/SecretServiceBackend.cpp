#include "config/SecretServiceBackend.h"

#include "config/KeychainError.h"

#include <condition_variable>
#include <functional>
#include <gio/gio.h>
#include <libsecret/secret.h>
#include <memory>
#include <mutex>
#include <thread>

namespace velnora::SecretServiceBackend {

namespace {

thread_local QString t_lastFailure;

const SecretSchema* schema()
{
    // Matching by attributes only, so items written by other tools (secret-tool) are found too.
    static const SecretSchema value = [] {
        SecretSchema schema{};
        schema.name = "com.tarnwick.velnora.domestic.api-keys.v1";
        schema.flags = SECRET_SCHEMA_DONT_MATCH_NAME;
        schema.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
        schema.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
        return schema;
    }();
    return &value;
}

struct CallResult
{
    int32_t status = 0;
    QByteArray secret;
    QString detail;
};

int32_t statusForError(const GError* error)
{
    if (error->domain == SECRET_ERROR && error->code == SECRET_ERROR_IS_LOCKED) {
        return KeychainError::collectionLocked;
    }
    if (error->domain == SECRET_ERROR && error->code == SECRET_ERROR_NO_SUCH_OBJECT) {
        return KeychainError::itemNotFound;
    }
    if (error->domain == G_IO_ERROR && error->code == G_IO_ERROR_CANCELLED) {
        return KeychainError::userCancelled;
    }
    if (error->domain == G_DBUS_ERROR) {
        switch (error->code) {
        case G_DBUS_ERROR_SERVICE_UNKNOWN:
        case G_DBUS_ERROR_NAME_HAS_NO_OWNER:
        case G_DBUS_ERROR_SPAWN_SERVICE_NOT_FOUND:
        case G_DBUS_ERROR_SPAWN_EXEC_FAILED:
        case G_DBUS_ERROR_SPAWN_FAILED:
        case G_DBUS_ERROR_NO_SERVER:
        case G_DBUS_ERROR_FILE_NOT_FOUND:
            return KeychainError::serviceUnavailable;
        case G_DBUS_ERROR_ACCESS_DENIED:
        case G_DBUS_ERROR_AUTH_FAILED:
            return KeychainError::accessDenied;
        case G_DBUS_ERROR_TIMEOUT:
        case G_DBUS_ERROR_TIMED_OUT:
        case G_DBUS_ERROR_NO_REPLY:
            return KeychainError::timedOut;
        default:
            break;
        }
    }
    // No session bus at all, or a bus address that leads nowhere.
    if (error->domain == G_IO_ERROR) {
        return KeychainError::serviceUnavailable;
    }
    return KeychainError::serviceFailed;
}

CallResult failure(GError* error)
{
    CallResult result{statusForError(error), {}, QString::fromUtf8(error->message)};
    g_error_free(error);
    return result;
}

// Runs the blocking libsecret call on its own thread and stops waiting at the deadline. A call
// stuck behind a prompt may never return even when cancelled, so the thread owns everything it
// touches and is left to finish on its own.
CallResult runBounded(std::function<CallResult(GCancellable*)> call, std::chrono::milliseconds deadline)
{
    struct Shared
    {
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
        CallResult result;
        GCancellable* cancellable = g_cancellable_new();
        ~Shared() { g_object_unref(cancellable); }
    };
    auto shared = std::make_shared<Shared>();
    std::thread([shared, call = std::move(call)] {
        CallResult result = call(shared->cancellable);
        std::lock_guard lock(shared->mutex);
        shared->result = std::move(result);
        shared->finished = true;
        shared->done.notify_all();
    }).detach();

    std::unique_lock lock(shared->mutex);
    if (!shared->done.wait_for(lock, deadline, [&] { return shared->finished; })) {
        g_cancellable_cancel(shared->cancellable);
        return {KeychainError::timedOut, {}, QStringLiteral("Secret Service did not answer in time")};
    }
    return shared->result;
}

GHashTable* attributesFor(const QByteArray& service, const QByteArray& account)
{
    GHashTable* attributes = g_hash_table_new(g_str_hash, g_str_equal);
    g_hash_table_insert(attributes, const_cast<char*>("service"), const_cast<char*>(service.constData()));
    g_hash_table_insert(attributes, const_cast<char*>("account"), const_cast<char*>(account.constData()));
    return attributes;
}

CallResult search(const QByteArray& service, const QByteArray& account, bool loadSecret,
                  GCancellable* cancellable)
{
    GError* error = nullptr;
    SecretService* secretService = secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, cancellable, &error);
    if (!secretService) {
        return failure(error);
    }
    GHashTable* attributes = attributesFor(service, account);
    // No unlock flag: a locked collection must fail fast instead of raising a prompt.
    const auto flags =
        static_cast<SecretSearchFlags>(loadSecret ? SECRET_SEARCH_LOAD_SECRETS : SECRET_SEARCH_NONE);
    GList* items =
        secret_service_search_sync(secretService, schema(), attributes, flags, cancellable, &error);
    g_hash_table_unref(attributes);
    g_object_unref(secretService);
    if (error) {
        return failure(error);
    }
    CallResult result;
    if (!items) {
        result.status = KeychainError::itemNotFound;
    } else if (loadSecret) {
        auto* item = static_cast<SecretItem*>(items->data);
        if (secret_item_get_locked(item)) {
            result.status = KeychainError::collectionLocked;
        } else if (SecretValue* value = secret_item_get_secret(item)) {
            gsize length = 0;
            const gchar* bytes = secret_value_get(value, &length);
            result.secret = QByteArray(bytes, static_cast<qsizetype>(length));
            secret_value_unref(value);
        } else {
            result.status = KeychainError::decodeFailed;
        }
    }
    g_list_free_full(items, g_object_unref);
    return result;
}

} // namespace

int32_t copyItem(const KeychainQuery& query, QByteArray* secret, std::chrono::milliseconds deadline)
{
    const QByteArray service = query.service.toUtf8();
    const QByteArray account = query.account.toUtf8();
    const bool load = query.returnData;
    CallResult result =
        runBounded([service, account,
                    load](GCancellable* cancellable) { return search(service, account, load, cancellable); },
                   deadline);
    t_lastFailure = result.detail;
    if (result.status == 0 && secret) {
        *secret = result.secret;
    }
    return result.status;
}

int32_t addItem(const KeychainItem& item, std::chrono::milliseconds deadline)
{
    const QByteArray service = item.service.toUtf8();
    const QByteArray account = item.account.toUtf8();
    const QByteArray secret = item.secret;
    const QByteArray label = QStringLiteral("澜镜 API Key（%1）").arg(item.account).toUtf8();
    CallResult result = runBounded(
        [=](GCancellable* cancellable) {
            GError* error = nullptr;
            SecretValue* value = secret_value_new(secret.constData(), secret.size(), "text/plain");
            GHashTable* attributes = attributesFor(service, account);
            const gboolean stored =
                secret_password_storev_binary_sync(schema(), attributes, SECRET_COLLECTION_DEFAULT,
                                                   label.constData(), value, cancellable, &error);
            g_hash_table_unref(attributes);
            secret_value_unref(value);
            return stored ? CallResult{} : failure(error);
        },
        deadline);
    t_lastFailure = result.detail;
    return result.status;
}

int32_t deleteItem(const KeychainQuery& query, std::chrono::milliseconds deadline)
{
    const QByteArray service = query.service.toUtf8();
    const QByteArray account = query.account.toUtf8();
    CallResult result = runBounded(
        [=](GCancellable* cancellable) {
            GError* error = nullptr;
            GHashTable* attributes = attributesFor(service, account);
            const gboolean removed = secret_password_clearv_sync(schema(), attributes, cancellable, &error);
            g_hash_table_unref(attributes);
            if (error) {
                return failure(error);
            }
            return removed ? CallResult{} : CallResult{KeychainError::itemNotFound, {}, {}};
        },
        deadline);
    t_lastFailure = result.detail;
    return result.status;
}

int32_t unlockDefaultCollection(std::chrono::milliseconds deadline)
{
    CallResult result = runBounded(
        [](GCancellable* cancellable) {
            GError* error = nullptr;
            SecretService* secretService = secret_service_get_sync(SECRET_SERVICE_NONE, cancellable, &error);
            if (!secretService) {
                return failure(error);
            }
            SecretCollection* collection = secret_collection_for_alias_sync(
                secretService, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, cancellable, &error);
            if (!collection) {
                g_object_unref(secretService);
                return error ? failure(error) : CallResult{KeychainError::itemNotFound, {}, {}};
            }
            CallResult outcome;
            if (secret_collection_get_locked(collection)) {
                GList* objects = g_list_append(nullptr, collection);
                // The service answers with a prompt object; libsecret performs it and waits for its answer.
                const gint unlocked =
                    secret_service_unlock_sync(secretService, objects, cancellable, nullptr, &error);
                g_list_free(objects);
                if (error) {
                    outcome = failure(error);
                } else if (unlocked == 0) {
                    outcome.status = KeychainError::userCancelled; // the prompt was dismissed
                }
            }
            g_object_unref(collection);
            g_object_unref(secretService);
            return outcome;
        },
        deadline);
    t_lastFailure = result.detail;
    return result.status;
}

QString lastFailureDetail()
{
    return t_lastFailure;
}

} // namespace velnora::SecretServiceBackend
