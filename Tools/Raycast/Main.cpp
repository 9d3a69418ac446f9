// raycast: the library's command-line front end (demo pictures, tracing meshes and ray files).
#include "Commands.h"
#include "ToolError.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <new>

namespace
{
void AddCommonOptions(CLI::App& cCommand, CommonOptions& cOptions)
{
    cCommand.add_option("--device", cOptions.sDevice, "auto (GPU when one answers, else CPU), gpu or cpu")
        ->check(CLI::IsMember({"auto", "gpu", "cpu"}))
        ->capture_default_str();
    cCommand.add_option("--gpu", cOptions.iGpuId, "CUDA device ordinal")
        ->check(CLI::Range(0, 1023))
        ->capture_default_str();
    cCommand.add_flag("--diagnostics", cOptions.bDiagnostics, "print the OptiX log of every call to stderr");
}

void AddVector(CLI::App& cCommand, const char* sName, std::vector<float>& aValues, const char* sHelp)
{
    cCommand.add_option(sName, aValues, sHelp)->delimiter(',')->expected(3)->type_name("FLOAT");
}
} // namespace

int main(int argc, char** argv)
{
    CLI::App cApp("Batch ray casting against triangle meshes, on the GPU or the CPU flavour of the library.",
                  "raycast");
    // Zero allowed here so that an unknown word is reported as such rather than as a missing command.
    cApp.require_subcommand(0, 1);

    DemoOptions cDemo;
    CLI::App* pDemo =
        cApp.add_subcommand("demo", "trace a built-in scene of about a million triangles and write pictures");
    AddCommonOptions(*pDemo, cDemo.cCommon);
    pDemo->add_option("--resolution", cDemo.sResolution, "picture size WIDTHxHEIGHT")->capture_default_str();
    pDemo->add_option("--triangles", cDemo.nTriangles, "approximate scene size")
        ->check(CLI::Range(std::uint64_t(1000), std::uint64_t(100000000)))
        ->capture_default_str();
    pDemo->add_option("--output-dir", cDemo.sOutputDirectory, "directory for the PNG pictures")
        ->capture_default_str();

    TraceOptions cTrace;
    CLI::App* pTrace = cApp.add_subcommand("trace", "trace rays against a mesh file and write .npy results");
    AddCommonOptions(*pTrace, cTrace.cCommon);
    pTrace->add_flag("--no-progress", cTrace.cCommon.bNoProgress, "no progress line even on a terminal");
    // Checked after parsing, so that an unknown option is reported before a missing one.
    pTrace->add_option("--mesh", cTrace.sMesh, "required: OBJ, PLY, STL, OFF, glTF, ... (all meshes merged)");
    pTrace->add_option("--mode", cTrace.sMode, "nearest, nearest-index, both, both-index, count or all")
        ->check(CLI::IsMember({"nearest", "nearest-index", "both", "both-index", "count", "all"}))
        ->capture_default_str();
    pTrace->add_option("--max-distance", cTrace.fMaxDistance,
                       "maximum distance of every ray, reported for misses (default: the largest float)");
    pTrace->add_option("--output", cTrace.sOutput, "prefix of the result files")->capture_default_str();
    pTrace->add_option("--slice-rays", cTrace.nSliceRays, "rays per library call (default: one call)");
    pTrace->add_option("--origins", cTrace.sOrigins,
                       "float32 .npy of shape (n, 3); default: all at the origin");
    pTrace->add_option("--directions", cTrace.sDirections, "float32 .npy of shape (n, 3)");
    pTrace->add_option("--distances", cTrace.sDistances,
                       "float32 .npy of shape (n): per-ray maximum distance");
    pTrace->add_option("--rays", cTrace.sGenerator, "generator: camera (default), sphere or grid")
        ->check(CLI::IsMember({"camera", "sphere", "grid"}));
    AddVector(*pTrace, "--position", cTrace.aPosition, "camera position X,Y,Z (default: framing the mesh)");
    AddVector(*pTrace, "--look-at", cTrace.aLookAt, "camera target X,Y,Z (default: the mesh's centre)");
    AddVector(*pTrace, "--up", cTrace.aUp, "camera up direction X,Y,Z (default: 0,1,0)");
    pTrace->add_option("--fov", cTrace.fFov, "camera vertical field of view in degrees")
        ->capture_default_str();
    pTrace->add_option("--resolution", cTrace.sResolution, "camera pixels or grid rays, WIDTHxHEIGHT")
        ->capture_default_str();
    AddVector(*pTrace, "--center", cTrace.aCenter, "sphere rays' origin X,Y,Z (default: the mesh's centre)");
    pTrace->add_option("--count", cTrace.nCount, "number of sphere rays")->capture_default_str();
    AddVector(*pTrace, "--direction", cTrace.aDirection, "grid rays' direction X,Y,Z (default: 0,0,-1)");

    try
    {
        cApp.parse(argc, argv);
    }
    catch (const CLI::ParseError& cError)
    {
        if (cError.get_exit_code() == 0)
            return cApp.exit(cError);
        // One exit code for every usage or input error, whichever part noticed it.
        std::fprintf(stderr, "raycast: error: %s\n", cError.what());
        return 1;
    }

    if (!pDemo->parsed() && !pTrace->parsed())
    {
        std::fprintf(stderr, "raycast: error: a command is required: demo or trace (see --help)\n");
        return 1;
    }
    try
    {
        return pDemo->parsed() ? RunDemo(cDemo) : RunTrace(cTrace);
    }
    catch (const ToolError& cError)
    {
        std::fprintf(stderr, "raycast: error: %s\n", cError.what());
    }
    catch (const std::bad_alloc&)
    {
        std::fprintf(stderr, "raycast: error: out of memory\n");
    }
    catch (const std::exception& cError)
    {
        std::fprintf(stderr, "raycast: error: %s\n", cError.what());
    }
    return 1;
}
