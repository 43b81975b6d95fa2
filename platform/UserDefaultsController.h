#pragma once

#include <QVariant>
#include <QVariantMap>

class UserDefaults;

// Buffered access to a UserDefaults store. In buffered mode a value set here
// is seen by value() at once but reaches the store only on save() or when
// apply-immediately is switched on; revert() forgets it. Main thread only.
class UserDefaultsController
{
public:
    explicit UserDefaultsController(UserDefaults *defaults);

    static UserDefaultsController *sharedUserDefaultsController();
    static void setSharedUserDefaultsController(UserDefaultsController *controller);

    UserDefaults *defaults() const;

    QVariantMap initialValues() const;
    void setInitialValues(const QVariantMap &values);

    bool appliesImmediately() const;
    // Switching it on commits what is buffered.
    void setAppliesImmediately(bool flag);
    bool hasUnappliedChanges() const;

    // Buffered value first (an invalid QVariant set here means "removed"),
    // then the store's search order, then the initial values.
    QVariant value(const QString &key) const;
    // An invalid QVariant removes the key.
    void setValue(const QVariant &value, const QString &key);

    // Moves the buffer into the store and writes the store to disk; false
    // when the write failed (the store keeps the changes for a later try).
    bool save();
    void revert();

private:
    UserDefaults *_defaults;
    QVariantMap _initialValues;
    QVariantMap _buffer;
    bool _appliesImmediately = true;
};
