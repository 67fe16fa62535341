#!/usr/bin/env python3
"""config-table.py [--settings | --config]: prints Markdown tables read from the sources.

--settings (the default): the settings the cloud hands out. The "da/state"
answer keys come from the key tables of Core/Base/DaAnswer.cpp (kUnsignedKeys,
kStringKeys, kBoolKeys), their defaults from the member initialisers of
Core/Base/PersistentValues.h; "read by" lists the source files that call the
value's getter (none: the value is kept but changes nothing). The "drmp/work"
answer keys come from DrmpPersistentValues::Fields() and the defaults in
Drmp/Base/DrmpPersistentValues.h.

--config: every JsonUtil::Read* call of the configuration classes (the "core",
"supportView", "softwareUpdate" and "drmp" sections) with its default from the
class header, and the keys of the identity and device documents. These keys
are not kept in tables in the code, so this is a cross-check for the
hand-written table of docs/integrator-guide.md, not a replacement for it.

Run from anywhere: python3 scripts/config-table.py [--settings | --config]
Reads files only.
"""
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SOURCE_DIRS = ["Core", "SupportView", "SoftwareUpdate", "Drmp"]


def read(path):
    with open(os.path.join(ROOT, path), encoding="utf-8") as handle:
        return handle.read()


def members(header):
    """Member name -> (C++ type, default text) from `type name_ = value;` lines."""
    found = {}
    pattern = r"^\s+(std::string|bool|uint32_t|unsigned|ConsentState|std::vector<std::string>)\s+(\w+)(?:\s*=\s*([^;]*))?;"
    for kind, name, value in re.findall(pattern, header, re.M):
        found[name] = (kind, (value or "").strip())
    return found


def constants(header):
    """kName -> value text from `static constexpr ... kName = value;` lines."""
    return dict(re.findall(r"static constexpr [\w: *]+? (k\w+) = ([^;]+);", header))


def show_default(kind, value, consts):
    value = consts.get(value, value)
    if kind in ("std::string",):
        return '""' if value in ("", '""') else value
    if kind == "std::vector<std::string>":
        return "[]"
    if value == "":
        return '""' if kind == "std::string" else "0"
    return value


def json_type(kind):
    return {
        "std::string": "text",
        "bool": "boolean",
        "uint32_t": "unsigned",
        "unsigned": "unsigned",
    }.get(kind, kind)


def sources():
    for top in SOURCE_DIRS:
        for folder, _, files in os.walk(os.path.join(ROOT, top)):
            for name in sorted(files):
                if name.endswith(".cpp"):
                    path = os.path.join(folder, name)
                    yield os.path.relpath(path, ROOT), open(path, encoding="utf-8").read()


def readers(getter, skip):
    users = []
    for path, text in sources():
        if os.path.basename(path) in skip:
            continue
        if re.search(r"\b%s\(" % re.escape(getter), text):
            users.append(os.path.basename(path))
    return ", ".join(sorted(set(users))) or "none"


def settings():
    answer = read("Core/Base/DaAnswer.cpp")
    header = members(read("Core/Base/PersistentValues.h"))
    print("| Key in the da/state answer | Type | Default | Read by |")
    print("|---|---|---|---|")
    for table in ("kUnsignedKeys", "kStringKeys", "kBoolKeys"):
        body = re.search(table + r"\[\] = \{(.*?)\n\};", answer, re.S).group(1)
        for key, setter in re.findall(r'\{"(\w+)", &PersistentValues::set(\w+)\}', body):
            member = setter[0].lower() + setter[1:] + "_"
            kind, value = header[member]
            users = readers("get" + setter, {"PersistentValues.cpp", "DaAnswer.cpp"})
            print("| `%s` | %s | %s | %s |" % (key, json_type(kind), show_default(kind, value, {}), users))
    others = re.findall(r'Member\(answer, "(\w+)"\)', answer)
    print()
    print("Answer keys read outside the tables (Core/Base/DaAnswer.cpp): " +
          ", ".join("`%s`" % key for key in others) + ".")
    print()
    drmp = read("Drmp/Base/DrmpPersistentValues.cpp")
    drmp_header = members(read("Drmp/Base/DrmpPersistentValues.h"))
    print("| Key in the drmp/work answer | Type | Default |")
    print("|---|---|---|")
    body = re.search(r"Fields\(\) \{(.*?)\};", drmp, re.S).group(1)
    for key, member in re.findall(r'\{"(\w+)", &DrmpPersistentValues::(\w+)\}', body):
        kind, value = drmp_header[member]
        print("| `%s` | %s | %s |" % (key, json_type(kind), show_default(kind, value, {})))


CONFIG_CLASSES = [
    ("Core/Base/CoreConfig.cpp", "Core/Base/CoreConfig.h"),
    ("SupportView/Base/SupportViewConfig.cpp", "SupportView/Base/SupportViewConfig.h"),
    ("SoftwareUpdate/Base/SoftwareUpdateConfig.cpp", "SoftwareUpdate/Base/SoftwareUpdateConfig.h"),
    ("Drmp/Base/DrmpConfig.cpp", "Drmp/Base/DrmpConfig.h"),
]
READ_TYPES = {"ReadBool": "boolean", "ReadString": "text", "ReadUInt32": "unsigned"}


def config():
    print("| Section | Key | Type | Default (member initialiser) | Source |")
    print("|---|---|---|---|---|")
    for source, header_path in CONFIG_CLASSES:
        text = read(source)
        header_text = read(header_path)
        fields = members(header_text)
        consts = constants(header_text)
        sections = dict(re.findall(r'const Json::Value& (\w+) = JsonUtil::Member\(root, "(\w+)"\);', text))
        for reader, variable, key, member in re.findall(
                r'JsonUtil::(Read\w+)\((\w+), "(\w+)", (\w+)\)', text):
            kind, value = fields.get(member, ("?", "?"))
            default = show_default(kind, value, consts)
            if kind == "std::string" and default == '""' and source.endswith("CoreConfig.cpp"):
                default = '"" (the working directory, for a path)'
            print("| `%s` | `%s` | %s | %s | %s |" % (
                sections.get(variable, variable), key, READ_TYPES[reader], default,
                os.path.basename(source)))
    identity = read("Core/Project/ProductIdentity.cpp")
    for key in re.findall(r'JsonUtil::ReadString\(root, "(\w+)"', identity):
        print("| identity document | `%s` | text | \"\" | ProductIdentity.cpp |" % key)
    device = read("Core/Project/DeviceValues.cpp")
    keys = re.search(r'for \(const char\* key :\s*\{([^}]*)\}', device).group(1)
    for key in re.findall(r'"(\w+)"', keys):
        print("| device document | `%s` | text | read from the machine | DeviceValues.cpp |" % key)


def main(argv):
    mode = argv[1] if len(argv) > 1 else "--settings"
    if mode == "--settings":
        settings()
    elif mode == "--config":
        config()
    else:
        print(__doc__.strip().splitlines()[0], file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
