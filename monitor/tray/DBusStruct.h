// D-Bus structures written and read from one list of their fields.
//
// Contract: a type that has `fields()` (and its const twin), each a
// std::tie of its members in the order of its D-Bus signature, is written
// and read as a D-Bus structure of exactly those fields; no such type has
// streaming operators of its own. A type whose wire form is more than its
// fields in order (a tree of variants) keeps hand-written ones.
#pragma once

#include <QDBusArgument>

#include <tuple>

template <class T>
concept DBusStruct = requires(T &t, const T &c) {
    t.fields();
    c.fields();
};

template <DBusStruct T> QDBusArgument &operator<<(QDBusArgument &arg, const T &value) {
    arg.beginStructure();
    std::apply([&arg](const auto &...field) { ((arg << field), ...); }, value.fields());
    arg.endStructure();
    return arg;
}

template <DBusStruct T> const QDBusArgument &operator>>(const QDBusArgument &arg, T &value) {
    arg.beginStructure();
    std::apply([&arg](auto &...field) { ((arg >> field), ...); }, value.fields());
    arg.endStructure();
    return arg;
}
