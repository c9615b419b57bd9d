#pragma once

#include <QString>
#include <QStringList>

// The private session's gnome-keyring as a user meets it: a locked login collection, and the
// desktop's own unlock prompt (gcr-prompter on the session's display) answered from the keyboard.
namespace velnora::test::KeyringPrompt {

// The password scripts/desktop-session.sh gives the keyring.
inline const QString sessionPassword = QStringLiteral("velnora-test");

bool lockLoginCollection();
// Whether the prompt is on screen now.
bool isShown();
// Waits up to 20 s for the prompt, then types `typed` and presses `keys` into it.
bool answer(const QStringList& keys, const QString& typed);

} // namespace velnora::test::KeyringPrompt
