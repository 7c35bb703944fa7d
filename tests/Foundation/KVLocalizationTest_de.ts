<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>Localizable</name>
    <message>
        <source>%@ was successfully installed.</source>
        <translation>%@ wurde erfolgreich installiert.</translation>
    </message>
</context>
</TS>
