<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN">
<context>
    <name>HelloPlugin</name>
    <message>
        <source>Hello</source>
        <translation>你好</translation>
    </message>
    <message>
        <source>No bus</source>
        <translation>没有总线</translation>
    </message>
</context>
</TS>
