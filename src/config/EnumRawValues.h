#pragma once

#include <QString>
#include <QStringView>

#include <array>
#include <optional>
#include <utility>

namespace velnora {

// Every enumeration is stored and sent as its raw string. A specialisation lists the cases in order:
//   template <> struct EnumRawValues<Foo> { static constexpr std::array cases{std::pair{Foo::a, "a"}, ...}; };
template <typename E>
struct EnumRawValues;

template <typename E>
QString rawValue(E value)
{
    for (const auto& [candidate, raw] : EnumRawValues<E>::cases) {
        if (candidate == value) {
            return QString::fromLatin1(raw);
        }
    }
    return {};
}

template <typename E>
std::optional<E> fromRawValue(QStringView raw)
{
    for (const auto& [candidate, text] : EnumRawValues<E>::cases) {
        if (raw == QLatin1String(text)) {
            return candidate;
        }
    }
    return std::nullopt;
}

template <typename E>
constexpr auto allCases()
{
    constexpr auto& table = EnumRawValues<E>::cases;
    std::array<E, table.size()> values{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        values[i] = table[i].first;
    }
    return values;
}

} // namespace velnora
