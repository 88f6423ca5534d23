// The app's icon, drawn rather than loaded so that it needs no image plugin:
// a raven-blue rounded square with a white "C" and a query cursor.
#pragma once

#include <QIcon>

namespace corvane::desktop {

QIcon appIcon();

}  // namespace corvane::desktop
