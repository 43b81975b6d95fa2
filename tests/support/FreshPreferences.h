#pragma once

#include "TemporaryHome.h"

#include <memory>

class UserDefaults;
class UserDefaultsController;

// A temporary home with a preference store and shared controller of its own,
// so that no test sees another's settings.
class FreshPreferences : public TemporaryHome
{
public:
    FreshPreferences();
    ~FreshPreferences();

    UserDefaults *defaults() const { return _defaults.get(); }
    UserDefaultsController *controller() const { return _controller.get(); }
    // Writes a whole domain file as the companion or another program would.
    void writeDomain(const QString &domain, const QVariantMap &values) const;
    QVariantMap readDomain(const QString &domain) const;

private:
    std::unique_ptr<UserDefaults> _defaults;
    std::unique_ptr<UserDefaultsController> _controller;
};
