#include "UserDefaultsController.h"

#include "SharedInstance.h"
#include "UserDefaults.h"

namespace {

SharedInstance<UserDefaultsController> shared([]() -> UserDefaultsController * {
    return new UserDefaultsController(UserDefaults::standardUserDefaults());
});

} // namespace

UserDefaultsController::UserDefaultsController(UserDefaults *defaults)
    : _defaults(defaults)
{}

UserDefaultsController *UserDefaultsController::sharedUserDefaultsController()
{
    return shared.get();
}

void UserDefaultsController::setSharedUserDefaultsController(UserDefaultsController *controller)
{
    shared.set(controller);
}

UserDefaults *UserDefaultsController::defaults() const
{
    return _defaults;
}

QVariantMap UserDefaultsController::initialValues() const
{
    return _initialValues;
}

void UserDefaultsController::setInitialValues(const QVariantMap &values)
{
    _initialValues = values;
}

bool UserDefaultsController::appliesImmediately() const
{
    return _appliesImmediately;
}

void UserDefaultsController::setAppliesImmediately(bool flag)
{
    if (flag == _appliesImmediately)
        return;
    _appliesImmediately = flag;
    if (flag)
        save();
}

bool UserDefaultsController::hasUnappliedChanges() const
{
    return !_buffer.isEmpty();
}

QVariant UserDefaultsController::value(const QString &key) const
{
    // A buffered removal hides the stored value and the initial one alike.
    if (auto it = _buffer.constFind(key); it != _buffer.cend())
        return it.value();
    const QVariant stored = _defaults->objectForKey(key);
    return stored.isValid() ? stored : _initialValues.value(key);
}

void UserDefaultsController::setValue(const QVariant &value, const QString &key)
{
    if (!_appliesImmediately) {
        _buffer.insert(key, value);
        return;
    }
    _defaults->setObjectForKey(value, key);
    _defaults->synchronize();
}

bool UserDefaultsController::save()
{
    for (auto it = _buffer.cbegin(); it != _buffer.cend(); ++it)
        _defaults->setObjectForKey(it.value(), it.key());
    _buffer.clear();
    return _defaults->synchronize();
}

void UserDefaultsController::revert()
{
    _buffer.clear();
}
