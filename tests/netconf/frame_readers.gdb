# Loaded by the ncclient suite's dump of a daemon whose reply did not come:
# prints the frame reader of every SSH channel a thread is polling.
python
import gdb
for thread in gdb.selected_inferior().threads():
    thread.switch()
    frame = gdb.newest_frame()
    while frame:
        if (frame.name() or "").endswith("::pull"):
            frame.select()
            try:
                print(f"thread {thread.num} polls a channel; its reader: {gdb.parse_and_eval('state.reader')}")
            except gdb.error as e:
                print(f"thread {thread.num}: {e}")
        frame = frame.older()
end
