// Taking focus with the token of the click that led to a window.
//
// On Wayland a window may take focus only with a token that the compositor
// gave for something the user did (xdg-activation): a tray host gets one for
// the click on the icon and hands it to the item just before the click
// (ProvideXdgActivationToken). Qt's Wayland integration activates the next
// window it is asked to with the token in XDG_ACTIVATION_TOKEN, and clears
// it then. On X11 the same token is a startup-notification id: the window
// manager reads it from the window's _NET_STARTUP_ID property when the
// window maps, and lets it take focus as the launch the id names.
//
// Contract:
//   - prepareActivation(window, token) before the window is shown: its
//     activation (activateWindow) goes with the token. An empty token
//     changes nothing.
//   - endActivation() once the window is gone: a token Qt did not use is
//     not left in the environment, where the programs the monitor starts
//     would inherit it.
#pragma once

class QString;
class QWidget;

void prepareActivation(QWidget *window, const QString &token);
void endActivation();
