"""The Python module end to end on a small scene, against the command-line tool."""

import os
import pathlib
import subprocess
import sys

import numpy as np
import pytest

import vellgrund

CLI = os.environ["VELLGRUND_CLI"]

SCENE = """{"vellgrund": 1, "objects": [{"type": "oterrain", "name": "Hills",
  "params": {"TERRAINOBJECT_RESOLUTION_X": 100, "TERRAINOBJECT_RESOLUTION_Z": 100}, "children": [
    {"type": "onoiseoperator", "name": "Base", "params": {"NOISEOPERATOR_SEED": 7}},
    {"type": "onoiseoperator", "name": "Detail", "params": {"NOISEOPERATOR_SEED": 9, "TERRAINOPERATOR_STRENGTH": 0.3}},
    {"type": "obluroperator", "name": "Soften"}]}]}"""


def test_edits_commands_and_undo(tmp_path):
    doc = vellgrund.Document.from_json(SCENE)
    terrain = doc.find("Hills")
    base, detail, soften = terrain.children
    assert [n.name for n in doc.nodes()] == ["Hills", "Base", "Detail", "Soften"]
    assert base.type == "onoiseoperator" and base.parent == terrain

    # Choices by name or number, clamped numbers, vectors as tuples, curves as presets.
    detail["TERRAINOPERATOR_BLENDMODE"] = "MULTIPLY"
    assert detail[1002] == "MULTIPLY"
    detail[1002] = 0
    assert detail["TERRAINOPERATOR_BLENDMODE"] == "NORMAL"
    curve = doc.insert("ocurveoperator", parent=terrain)
    curve["CURVEOPERATOR_CURVE"] = "TERRACE_2"
    assert len(curve["CURVEOPERATOR_CURVE"]) > 2
    assert isinstance(base["NOISEOPERATOR_SCALE"], tuple) or isinstance(base["NOISEOPERATOR_SCALE"], float)

    doc.select([base, detail, soften])
    assert doc.command_enabled("GroupOperatorsCommand")
    assert doc.command("GroupOperatorsCommand")
    group = doc.selection[0]
    assert group.type == "ogroupoperator" and [c.name for c in group.children] == ["Base", "Detail", "Soften"]
    assert doc.undo()
    assert [c.name for c in terrain.children] == ["Base", "Detail", "Soften", curve.name]
    assert [n.name for n in doc.selection] == ["Base", "Detail", "Soften"]
    assert doc.redo() and doc.undo()

    doc.select([terrain])
    assert doc.command(1056090, modifier=True)  # increase resolution by 100
    assert terrain["TERRAINOBJECT_RESOLUTION_X"] == 200
    assert vellgrund.commands()[0] == "GroupOperatorsCommand"

    path = tmp_path / "edited.json"
    doc.save(str(path))
    assert vellgrund.Document.load(str(path)).to_json() == doc.to_json()


def test_second_build_is_cached_and_heights_match_the_tool(tmp_path):
    doc = vellgrund.Document.from_json(SCENE)
    first = doc.build()
    assert [op["rebuilt"] for op in first[0]["operators"]] == [True, True, True]
    doc.find("Soften")["TERRAINOPERATOR_STRENGTH"] = 0.6  # blending only: nothing recomputes
    second = doc.build(threads=1)
    assert [op["rebuilt"] for op in second[0]["operators"]] == [False, False, False]
    heights = second[0]["heights"]
    assert heights.shape == (101, 101) and not heights.flags.writeable
    mesh = second[0]["mesh"]
    assert mesh["points"].shape == (101 * 101, 3) and mesh["polygons"].shape == (100 * 100, 4)
    assert np.array_equal(mesh["points"][:, 1], heights.ravel())

    # The arrays share the engine's memory: a later build must leave them as they were.
    kept, kept_points = heights.copy(), mesh["points"].copy()
    doc.find("Soften")["TERRAINOPERATOR_STRENGTH"] = 0.1
    third = doc.build()
    assert not np.array_equal(third[0]["heights"], kept)
    assert np.array_equal(heights, kept) and np.array_equal(mesh["points"], kept_points)
    doc.find("Soften")["TERRAINOPERATOR_STRENGTH"] = 0.6
    doc.build()

    scene = tmp_path / "scene.json"
    doc.save(str(scene))
    subprocess.run([CLI, "build", str(scene), "-o", str(tmp_path), "-q", "--heights", str(tmp_path / "h.npy")], check=True)
    assert np.array_equal(np.load(tmp_path / "h.npy"), heights)


def test_materials_bake_into_arrays_and_only_what_changed_is_baked_again():
    doc = vellgrund.Document.from_json(SCENE)
    terrain, base = doc.find("Hills"), doc.find("Base")
    ground = doc.insert("Mmaterial")
    ground.name = "Ground"
    colour = doc.insert("xcolourshader", parent=ground)
    colour["COLOURSHADER_COLOUR"] = (1.0, 0.5, 0.0)
    reader = doc.insert("Mmaterial")
    reader["MATERIAL_MASK"] = True
    operator_shader = doc.insert("xterrainoperatorshader", parent=reader)
    operator_shader["TERRAINOPERATORSHADER_OPERATOR"] = base
    terrain.materials = [ground, reader]
    assert doc.materials() == [ground, reader] and ground.shaders == [colour]
    assert terrain.materials == [ground, reader]

    first = doc.build(texture_size=64)[0]["materials"]
    assert [(m["name"], m["baked"]) for m in first] == [("Ground", True), (reader.name, True)]
    texture, mask = first[0]["texture"], first[1]["texture"]
    assert texture.shape == (64, 64, 3) and texture.dtype == np.uint8 and not texture.flags.writeable
    assert tuple(texture[10, 10]) == (255, 128, 0)  # colours are given in sRGB and stored so
    assert mask.shape == (64, 64) and mask.dtype == np.uint16 and mask.min() < 6000 and mask.max() > 59000

    # The blend of another operator reaches no material; the read operator's own edit reaches
    # the material that reads it and no other.
    doc.find("Soften")["TERRAINOPERATOR_STRENGTH"] = 0.5
    assert [m["baked"] for m in doc.build(texture_size=64)[0]["materials"]] == [False, False]
    base["TERRAINOPERATOR_STRENGTH"] = 0.5
    again = doc.build(texture_size=64)[0]["materials"]
    assert [m["baked"] for m in again] == [False, True]
    assert np.array_equal(again[0]["texture"], texture)

    with pytest.raises(ValueError, match="goes into a material"):
        doc.insert("xcolourshader", parent=terrain)
    with pytest.raises(ValueError, match="among the document's materials"):
        doc.insert("Mmaterial", parent=terrain)
    with pytest.raises(ValueError, match="is not a material"):
        terrain.materials = [base]


def test_a_spline_road_from_python():
    doc = vellgrund.Document.from_json(SCENE)
    terrain = doc.find("Hills")
    road = doc.insert("ospline")
    road["SPLINEOBJECT_POINTS"] = [{"position": [-200, 5, 0]}, {"position": [200, 5, 0]}]
    assert [p["position"] for p in road["SPLINEOBJECT_POINTS"]] == [[-200, 5, 0], [200, 5, 0]]
    before = doc.build()[0]["heights"].copy()
    operator = doc.insert("osplineoperator", parent=terrain)
    operator["SPLINEOPERATOR_SPLINES"] = [road]
    assert operator["SPLINEOPERATOR_SPLINES"] == [road]
    after = doc.build()[0]["heights"]
    changed = np.argwhere(after != before)
    # Rows run across the road (along X at Z = 0): only those near the middle changed.
    assert changed.size and np.all(np.abs(changed[:, 0] - 50) <= 12)
    assert np.allclose(after[50, 10:90], 5.0)
    with pytest.raises(TypeError):
        operator["SPLINEOPERATOR_SPLINES"] = [1]


def test_errors_are_python_exceptions():
    doc = vellgrund.Document.from_json(SCENE)
    base = doc.find("Base")
    with pytest.raises(ValueError, match="expected a number"):
        base["TERRAINOPERATOR_STRENGTH"] = "strong"
    with pytest.raises(ValueError, match="is not a member of BLENDMODE"):
        base["TERRAINOPERATOR_BLENDMODE"] = "SPARKLE"
    with pytest.raises(KeyError):
        base["NO_SUCH_PARAMETER"]
    with pytest.raises(ValueError, match="Unknown node type"):
        doc.insert("onosuchoperator")
    with pytest.raises(ValueError, match="expected a JSON object|not a scene file"):
        vellgrund.Document.from_json("[]")
    with pytest.raises(ValueError):
        doc.command("NoSuchCommand")
    doc.remove(base)
    with pytest.raises(ValueError, match="no longer in its document"):
        base.name
    assert issubclass(vellgrund.Error, RuntimeError)


def test_describe_and_noise():
    terrain = vellgrund.describe("oterrain")[0]
    assert terrain["id"] == 1054563
    assert any(p["symbol"] == "TERRAINOBJECT_RESOLUTION_X" for p in terrain["parameters"])
    assert {e["type"] for e in vellgrund.describe()} >= set(vellgrund.commands())
    points = np.random.default_rng(1).random((20000, 3)) * 10
    values = vellgrund.noise(1, points, seed=3, octaves=4)
    assert values.shape == (20000,) and np.all((values >= 0) & (values <= 1))
    assert np.array_equal(values, vellgrund.noise(1, points, seed=3, octaves=4))
    with pytest.raises(ValueError):
        vellgrund.noise(1, np.zeros((4, 2)))


@pytest.mark.parametrize("script", ["seed_sweep.py", "edit_with_commands.py"])
def test_the_example_scripts_run(script, tmp_path):
    examples = pathlib.Path(__file__).parents[2] / "examples" / "python"
    subprocess.run([sys.executable, str(examples / script)], cwd=tmp_path, check=True,
                   capture_output=True)
