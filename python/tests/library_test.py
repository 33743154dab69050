"""The declarations of _library.py are those of the headers."""
import ctypes
import re

from conftest import ROOT

from tarn_comm import _library as lib

HEADERS = "\n".join(path.read_text() for path in (ROOT / "include/tarn_utils_v4").glob("comm*.h")
                    if path.name != "comm_cpp.h")
TEXT = re.sub(r"//.*", "", HEADERS)
# A pointer to a class, whose inside nobody knows.
HANDLE = ctypes.c_void_p
SCALARS = {"void": None, "int": ctypes.c_int, "unsigned": ctypes.c_uint, "size_t": ctypes.c_size_t,
           "unsigned long": ctypes.c_ulong, "uint8_t": ctypes.c_uint8, "uint32_t": ctypes.c_uint32,
           "uint64_t": ctypes.c_uint64, "int64_t": ctypes.c_int64, "double": ctypes.c_double,
           "mode_t": ctypes.c_uint, "gid_t": ctypes.c_uint, "CommLoopId": lib.CommLoopId,
           "CommLoopReason": ctypes.c_uint32, "comm_v4_offset_t": ctypes.c_uint32}
POINTERS = {"char": ctypes.c_char_p, "size_t": ctypes.POINTER(ctypes.c_size_t),
            "struct ucred": ctypes.POINTER(lib.Ucred),
            "CommLoopLimits": ctypes.POINTER(lib.CommLoopLimits),
            "CommLoopCounters": ctypes.POINTER(lib.CommLoopCounters),
            "CommLoopCallbacks": ctypes.POINTER(lib.CommLoopCallbacks),
            "comm_socket_v4_packet_argv": ctypes.POINTER(lib.PacketArgv),
            "comm_socket_v4_packet_nv_pair": ctypes.POINTER(lib.PacketNvPair)}
BYTES = (HANDLE, ctypes.c_char_p)  # Python passes bytes, and takes addresses.


def types(declared, has_name):
    """What ctypes may call a type of C."""
    words = declared.replace("const ", "").strip()
    match = re.fullmatch(r"(struct \w+|unsigned (?:char|long)|\w+) ?(\*?) ?(\w*)", words)
    assert match and bool(match[3]) == has_name, declared
    if not match[2]:
        return (SCALARS[match[1]],)
    return BYTES if match[1] == "unsigned char" else (POINTERS.get(match[1], HANDLE),)


def test_functions():
    compared = 0
    text = re.sub(r"void \(\*(\w+)\)\([^)]*\)", r"void* \1", TEXT)  # Pointers to functions.
    for function in vars(lib).values():
        if not isinstance(function, ctypes._CFuncPtr):
            continue
        found = re.search(rf"COMM_V4_EXPORT ([\w ]+\*? ){function.__name__}\(([^)]*)\)", text)
        assert found, function.__name__
        arguments = [] if found[2] == "void" else re.sub(r"\s+", " ", found[2]).split(", ")
        result = HANDLE if function.restype is lib.Handle else function.restype
        assert result in types(found[1], False), function.__name__
        assert len(function.argtypes) == len(arguments), function.__name__
        for argument, declared in zip(function.argtypes, arguments):
            assert argument in types(declared, True), (function.__name__, declared)
        compared += 1
    assert compared > 70


def test_structures():
    for structure in (lib.CommLoopId, lib.CommLoopLimits, lib.CommLoopCounters,
                      lib.CommLoopCallbacks, lib.PacketArgv, lib.PacketNvPair):
        name = {"PacketArgv": "comm_socket_v4_packet_argv",
                "PacketNvPair": "comm_socket_v4_packet_nv_pair"}.get(structure.__name__,
                                                                    structure.__name__)
        body = re.search(rf"typedef struct [^;{{]*\b{name} {{(.*?)\n}} {name};", TEXT, re.S)[1]
        body = re.sub(r"#ifdef __cplus.*?#endif| COMM_V4_DEFAULT\([^;]*\)", "", body, flags=re.S)
        body = body.replace("COMM_LOOP_REASONS", "8")
        fields = []
        for field in filter(str.strip, body.split(";")):
            callback = re.search(r"\(\*(\w+)", field)
            if callback:
                many = re.search(r"\[(\d+)\]", field)
                fields.append((callback[1], HANDLE * int(many[1]) if many else HANDLE))
                continue
            kind, field_name, many = re.fullmatch(r"\s*(void\*|\w+) (\w+)(?:\[(\d+)\])?",
                                                  field).groups()
            one = HANDLE if kind == "void*" else SCALARS[kind]
            fields.append((field_name, one * int(many) if many else one))
        declared = [(field, HANDLE if issubclass(kind, ctypes._CFuncPtr) else kind)
                    for field, kind in structure._fields_]
        assert declared == fields, name
    for name, kind in vars(lib).items():
        if name.startswith("On"):
            callback = "on" + re.sub("([A-Z])", r"_\1", name[2:]).lower()
            found = re.search(rf"(\w+) \(\*{callback}\)\(([^)]*)\)", TEXT)
            assert kind._restype_ in types(found[1], False)
            for argument, declared in zip(kind._argtypes_, found[2].split(", ")):
                assert argument in types(declared, True), (name, declared)


def test_constants():
    limits = dict(re.findall(r"#define COMM_V4_(\w+) (\w+?)(?:ul|u)?\b", HEADERS))
    for name, value in vars(lib).items():
        if name.startswith(("MAX_", "MIN_")):
            assert int(limits[name], 0) == value, name
    values = re.findall(r"comm_v4_type_(\w+) = (\d)", HEADERS)
    assert len(values) == 6
    for name, value in values:
        assert getattr(lib, name.upper()) == int(value)
    reasons = re.findall(r"comm_loop_(\w+) = \d", HEADERS)
    from tarn_comm import aio
    assert tuple(reasons) == aio._REASONS
