// Whether an X11 system tray (XEmbed, as trayer and stalonetray are) is
// there to take an icon: the owner of the screen's _NET_SYSTEM_TRAY_S<n>
// selection. Asked directly of the X server, since Qt's own answer counts a
// StatusNotifierItem host as a tray too, and the monitor needs to know
// where to go when such a host will not keep its item.
#pragma once

// false where the session is not X11 or nobody owns the selection.
bool xembedTrayPresent();
