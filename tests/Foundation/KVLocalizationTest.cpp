#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QFileInfo>
#include <QList>
#include <QTranslator>

#include "KVBundle.h"
#include "KVFormat.h"
#include "KVLocalization.h"

// The compiled test translation KVLocalizationTest_de.qm lies beside the
// test program, which is the main bundle's resource folder.
class KVLocalizationTest : public testing::Test {
protected:
    void SetUp() override { m_before = qApp->findChildren<QTranslator *>(); }
    // Translators installed by a test must not leak into the next one.
    void TearDown() override {
        for (QTranslator *translator : qApp->findChildren<QTranslator *>()) {
            if (m_before.contains(translator)) continue;
            QCoreApplication::removeTranslator(translator);
            delete translator;
        }
    }
    static bool installGerman() {
        return KVLocalization::installTranslations(KVBundle::mainBundle(), "KVLocalizationTest",
                                                   QLocale(QLocale::German, QLocale::Germany));
    }

private:
    QList<QTranslator *> m_before;
};

TEST_F(KVLocalizationTest, ShowsAnUntranslatedKeyItselfAndKeepsANullKeyNull) {
    EXPECT_EQ(KVLocalization::localizedString("Install"), "Install");
    EXPECT_EQ(KVLocalization::localizedString("Grüße, %@"), "Grüße, %@");
    EXPECT_TRUE(KVLocalization::localizedString(QString()).isNull());
}

TEST_F(KVLocalizationTest, TranslatesKeysAfterInstallingTheGermanTable) {
    ASSERT_TRUE(
        QFileInfo::exists(KVBundle::mainBundle().resourcePath() + "/KVLocalizationTest_de.qm"));
    ASSERT_TRUE(installGerman());
    EXPECT_EQ(KVLocalization::localizedString("Install"), "Installieren");
    EXPECT_EQ(
        kvFormat(KVLocalization::localizedString("%@ was successfully installed."), QString("P")),
        "P wurde erfolgreich installiert.");
    EXPECT_EQ(KVLocalization::localizedString("Quit"), "Quit");
}

TEST_F(KVLocalizationTest, ReportsALocaleWithoutATableAndKeepsShowingTheKeys) {
    EXPECT_FALSE(KVLocalization::installTranslations(KVBundle::mainBundle(), "KVLocalizationTest",
                                                     QLocale(QLocale::French, QLocale::France)));
    EXPECT_FALSE(KVLocalization::installTranslations(KVBundle::mainBundle(), "NoSuchTable",
                                                     QLocale(QLocale::German, QLocale::Germany)));
    EXPECT_EQ(KVLocalization::localizedString("Install"), "Install");
}
