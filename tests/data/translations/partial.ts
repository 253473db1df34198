<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<!-- For the tests only: a translation lacking most entries. -->
<TS version="2.1" language="de_DE" sourcelanguage="en">
<context>
    <name>Quendral</name>
    <message>
        <source>Default Instance</source>
        <translation>Standardinstanz</translation>
    </message>
    <message>
        <source>Start %@</source>
        <translation>%@ starten</translation>
    </message>
    <message>
        <source>Quit Quendral Monitor</source>
        <translation>Quendral Monitor beenden</translation>
    </message>
</context>
</TS>
