<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en_US">
<context>
    <name>Localizable</name>
    <message>
        <source>Continue</source>
        <translation>Continue</translation>
    </message>
    <message>
        <source>Install</source>
        <translation>Install</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Cancel</translation>
    </message>
    <message>
        <source>Go Back</source>
        <translation>Go Back</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Quit</translation>
    </message>
    <message>
        <source>Visit Archive</source>
        <translation>Visit Archive</translation>
    </message>
    <message>
        <source>If you wish to read the documentation first, click the &quot;?&quot; button.</source>
        <translation>If you wish to read the documentation first, click the &quot;?&quot; button.</translation>
    </message>
    <message>
        <source>%1$@ %2$@ cannot be installed on this computer because it requires Mac OS X %3$@ or newer.</source>
        <translation>%1$@ %2$@ cannot be installed on this computer because it requires Mac OS X %3$@ or newer.</translation>
    </message>
    <message>
        <source>To check if an older version of %@ is available for your computer, please visit our software archive.</source>
        <translation>To check if an older version of %@ is available for your computer, please visit our software archive.</translation>
    </message>
    <message>
        <source>missing source path</source>
        <translation>missing source path</translation>
    </message>
    <message>
        <source>missing program name</source>
        <translation>missing program name</translation>
    </message>
    <message>
        <source>missing product signature</source>
        <translation>missing product signature</translation>
    </message>
    <message>
        <source>%@ was successfully installed.</source>
        <translation>%@ was successfully installed.</translation>
    </message>
    <message>
        <source>%1$@ cannot be running during the installation.&#13;Quit %1$@, then click &quot;Install&quot; again.</source>
        <translation>%1$@ cannot be running during the installation.&#13;Quit %1$@, then click &quot;Install&quot; again.</translation>
    </message>
    <message>
        <source>Try installing %1$@ manually by copying it to the Applications folder.</source>
        <translation>Try installing %1$@ manually by copying it to the Applications folder.</translation>
    </message>
    <message>
        <source>Could not delete existing copy.</source>
        <translation>Could not delete existing copy.</translation>
    </message>
    <message>
        <source>Installation failed.</source>
        <translation>Installation failed.</translation>
    </message>
    <message>
        <source>Authorized copying failed.</source>
        <translation>Authorized copying failed.</translation>
    </message>
    <message>
        <source>unknown key %@</source>
        <translation>unknown key %@</translation>
    </message>
    <message>
        <source>missing value for -%@</source>
        <translation>missing value for -%@</translation>
    </message>
    <message>
        <source>%@ follows no key</source>
        <translation>%@ follows no key</translation>
    </message>
    <message>
        <source>more than one value for -%@</source>
        <translation>more than one value for -%@</translation>
    </message>
    <message>
        <source>nothing to install at %@</source>
        <translation>nothing to install at %@</translation>
    </message>
</context>
<context>
    <name>InstallerWindow</name>
    <message>
        <source>Install %@</source>
        <translation>Install %@</translation>
    </message>
    <message>
        <source>This installs %@ on your computer.</source>
        <translation>This installs %@ on your computer.</translation>
    </message>
    <message>
        <source>%@ goes into the folder shown above. Click &quot;Install&quot; to begin.</source>
        <translation>%@ goes into the folder shown above. Click &quot;Install&quot; to begin.</translation>
    </message>
    <message>
        <source>?</source>
        <translation>?</translation>
    </message>
    <message>
        <source>Documentation</source>
        <translation>Documentation</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Cancel</translation>
    </message>
    <message>
        <source>Install</source>
        <translation>Install</translation>
    </message>
</context>
</TS>
