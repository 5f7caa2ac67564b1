"""Faults for the model, one at a time: a comparison that cannot see them would be worth nothing.

Each is a passage of contract_model.py and what stands there instead, with what is then wrong.
"""

import types

import contract_model

FAULTS = {
    "arm_start keeps the size of a block of another format": (
        "            size = 0\n        record = Record(self.sender, 3)",
        "            pass\n        record = Record(self.sender, 3)"),
    "arm_start clears bit 0x20 instead of inverting it": ("flags ^ 0x20", "flags & 0xDF"),
    "arm_start looks at the id before the ignore rule": (
        "        if not memory.is_null(0):\n            flags = memory.read(0, 5)[4]\n"
        "            if",
        "        if tran_id >= 0 and not memory.is_null(0):\n"
        "            flags = memory.read(0, 5)[4]\n            if"),
    "arm_start leaves a line out": ("self.debug(\"  tran_id[%d]\\n\" % tran_id)", "pass"),
    "arm_stop refuses handle 0": (
        "if handle < 0:\n            self.error(\"Invalid", "if handle <= 0:\n            "
        "self.error(\"Invalid"),
    "arm_stop looks at the format": (
        "        if memory.is_null(0):\n            size = 0\n"
        "        record = Record(self.sender, 5)",
        "        if memory.is_null(0) or (size > 0 and memory.word(0, 0) != 1):\n"
        "            size = 0\n        record = Record(self.sender, 5)"),
    "arm_stop ends with a blank before its bracket": ("arm_stop EXIT[", "arm_stop EXIT ["),
    "arm_end spells its wait failure as others do": ("IPCGetFrmEngine", "IPCGetFromEngine"),
    "arm_update accepts handle 0": (
        "if handle <= 0:\n            return -1\n        record = Record(self.sender, 4)",
        "if handle < 0:\n            return -1\n        record = Record(self.sender, 4)"),
    "arm_update sends no block of format 2": ("if form in (1, 2):", "if form == 1:"),
    "a report refuses a negative third value": ("value2 < 0:", "value2 < 0 or value3 < 0:"),
    "a report without a stamp is stamped": ("        if stamp:", "        if True:"),
    "metric data of 4096 bytes is refused": ("length > 4096", "length >= 4096"),
    "a correlator is handed back unasked": ("if flags & 0x40:\n            memory", "if True:\n"
                                            "            memory"),
    "a correlator is handed back without its bit": ("bytes([flags | 0x20]))\n            memory."
                                                    "write(0, 88", "bytes([flags]))\n            "
                                                    "memory.write(0, 88"),
    "a name of 128 bytes is accepted": ("len(name) <= 127", "len(name) <= 128"),
    "a class name of 3619 bytes is refused": ("len(name) <= 3619", "len(name) <= 3618"),
    "arm_getid takes a block of any format": ("memory.is_null(2) or memory.word(2, 0) != 101",
                                              "memory.is_null(2)"),
    "the first conversion's error decides too": (
        "result, converted = self.convert(name, capacity)",
        "current, converted = self.convert(name, capacity)\n"
        "                result = result or current"),
    "bytes behind a zero character are sent": ("text.split(b\"\\0\")[0][:size - 1]",
                                               "text[:size - 1]"),
    "the login name is not converted": ("self.convert(self.login, 128)", "(0, self.login)"),
    "the caller's user is left alone": ("memory.write(1, 0, b\"\\0\")", "pass"),
    "a failed first step of a conversion has one line": (
        "self.debug(\"ConvertStrUTF8()->ucnv_toUChars() ICU ERROR Code [%d] \\n\" % error)",
        "pass"),
    "a converter can be replaced": ("            return -3004\n", "            pass\n"),
    "the debug format is read without regard to case": ("== \"basic\"", ".lower() == \"basic\""),
    "ICU_DATA stays as it was": (
        "self.environment[\"ICU_DATA\"] = \"",
        "self.environment.setdefault(\"ICU_DATA\", \"\") or \""),
    "a full ring is any failure": ("-274: -8", "-274: -9"),
    "the overflow semaphore is not drained": ("queue.overflow.values[0] = 0", "pass"),
    "every record raises the empty semaphore": ("if count + 1 == 1:", "if True:"),
    "the version is not written": ("put(segment.data, 20, \"I\", 50300)", "pass"),
    "the version is not compared": ("if version == 50300:", "if True:"),
    "the ready word is not looked at": ("elif u32(queue.data, 24) == 0:", "elif False:"),
    "a dead creator counts as alive": ("queue.lock.values[1] > 1", "queue.lock.values[1] > 0"),
    "a dead creator's segment is not opened": (
        "if result not in (0, -263):\n            self.debug(\"CIPCSimpleQueue",
        "if result != 0:\n            self.debug(\"CIPCSimpleQueue"),
    "a dead engine is not looked for again": (
        "self.ipc_initialized = self.initialize_ipc()\n        if not self.ipc_initialized:\n"
        "            self.debug(\"CheckEngineStatus, 2nd",
        "if not self.ipc_initialized:\n            self.debug(\"CheckEngineStatus, 2nd"),
    "the end of a reply queue does not lock": ("self.lock(self.in_queue)", "pass"),
    "segments have the names of semaphores": ("self.path_of(name, 125)", "self.path_of(name, 128)"),
    "any state ends a wait whose reply has come": ("if u32(data, 8) == 2:",
                                                   "if u32(data, 8) != 0:"),
    "a head record stays taken": ("        data[head] = 0\n        if u16",
                                  "        if u16"),
    "a cancelled head record stays cancelled": ("                data[head] = 0\n                "
                                                "return -277", "                return -277"),
    "nobody is told that a full reply queue has room": ("queue.wake.values[1] += 1", "pass"),
    "used items are put behind the free ones": (
        "put(data, first + 528, \"I\", u32(data, 4))\n        put(data, 4, \"I\", first)",
        "put(data, first + 528, \"I\", 0)"),
    "no head record is taken over": ("found = next(idle, None)", "found = None"),
}


def faulty_model(name):
    """The model with that fault."""
    old, new = FAULTS[name]
    with open(contract_model.__file__, encoding="ascii") as file:
        source = file.read()
    count = source.count(old)
    assert count == 1, "the passage of '%s' is there %d times" % (name, count)
    model = types.ModuleType("faulty_model")
    exec(compile(source.replace(old, new), "faulty_model", "exec"), model.__dict__)
    return model
