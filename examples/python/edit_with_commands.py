"""Edits a scene the way an artist would in the editor: groups the operators after the first, steps the
group's blend mode, raises the resolution, undoes a step, and saves the result.

    PYTHONPATH=build/release/python python3 examples/python/edit_with_commands.py [SCENE] [OUT]
"""

import sys

import vellgrund

doc = vellgrund.Document.load(sys.argv[1]) if len(sys.argv) > 1 else vellgrund.Document.new()
out = sys.argv[2] if len(sys.argv) > 2 else "edited.json"

terrain = next(node for node in doc.nodes() if node.type == "oterrain")
doc.select(terrain.children[1:])
if doc.command_enabled("GroupOperatorsCommand"):
    doc.command("GroupOperatorsCommand")
    group = doc.selection[0]
    group.name = "Detail"
    doc.command("NextBlendmodeCommand")
    print(f"grouped {[n.name for n in group.children]}; blend mode {group['TERRAINOPERATOR_BLENDMODE']}")

doc.select([terrain])
doc.command("IncreaseResCommand")
doc.command("IncreaseResCommand", modifier=True)
doc.undo()  # one step too far: back to +250
print(f"resolution {terrain['TERRAINOBJECT_RESOLUTION_X']} x {terrain['TERRAINOBJECT_RESOLUTION_Z']}")

doc.save(out)
print(f"wrote {out}")
