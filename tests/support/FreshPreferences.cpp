#include "FreshPreferences.h"

#include "platform/BundleInfo.h"
#include "platform/PropertyList.h"
#include "platform/UserDefaults.h"
#include "platform/UserDefaultsController.h"

FreshPreferences::FreshPreferences()
    : _defaults(std::make_unique<UserDefaults>(BundleInfo::bundleIdentifier()))
    , _controller(std::make_unique<UserDefaultsController>(_defaults.get()))
{
    UserDefaults::setStandardUserDefaults(_defaults.get());
    UserDefaultsController::setSharedUserDefaultsController(_controller.get());
}

FreshPreferences::~FreshPreferences()
{
    UserDefaultsController::setSharedUserDefaultsController(nullptr);
    UserDefaults::setStandardUserDefaults(nullptr);
}

void FreshPreferences::writeDomain(const QString &domain, const QVariantMap &values) const
{
    PropertyList::writeXmlFile(UserDefaults::pathForDomain(domain), values);
}

QVariantMap FreshPreferences::readDomain(const QString &domain) const
{
    return PropertyList::readFile(UserDefaults::pathForDomain(domain)).toMap();
}
