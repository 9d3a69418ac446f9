// The native part of the Python package raytracing: a flavour of the library loaded at run time from the
// package's own folder, its stateless call and its persistent scene. The package's Python part checks and
// converts the arguments and allocates the results; here the library runs with the GIL released.
#include "Arrays.h"
#include "LibraryCall.h"
#include "Results.h"

#include "Flavour.h"

#include <nanobind/nanobind.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>

#include <mutex>

namespace
{
// Flavour libraries sit beside this module.
Flavour LoadFlavour(const std::string& sDevice, int iGpuId)
{
    const DeviceChoice eChoice = sDevice == "gpu"   ? DeviceChoice::Gpu
                                 : sDevice == "cpu" ? DeviceChoice::Cpu
                                                    : DeviceChoice::Auto;
    return Flavour::Load(eChoice, iGpuId, ModuleLocation(reinterpret_cast<const void*>(&LoadFlavour)));
}

// One stateless RayTracing call; returns (all-hits distances or None, log).
nb::tuple TraceOnce(const Flavour& cFlavour, const TriangleArray& cTriangles, int iGpuId,
                    std::uint64_t nFreeGPUMemory, bool bDiagnostics, const RayArrays& cRays,
                    float fMaxDistance, ResultArrays& cArrays)
{
    cRays.Check();
    RayTracingResults cResults = BindResults(cArrays, cRays.Count());
    std::string sLog;
    {
        nb::gil_scoped_release cRelease;
        std::unique_lock cOrder(CallOrder(cFlavour.IsGpu()));
        CallLibrary(
            [&](std::string& sError)
            {
                return cFlavour.RayTracing()(cResults, cTriangles.shape(0), cTriangles.data(), cRays.Count(),
                                             cRays.Origins(), cRays.cDirections.data(), cRays.Distances(),
                                             iGpuId, sLog, sError, bDiagnostics, fMaxDistance,
                                             nFreeGPUMemory);
            });
    }
    return nb::make_tuple(CollectedHits(cResults), sLog);
}

// A scene made by a flavour; Python keeps the flavour alive as long as the scene.
class Scene
{
public:
    Scene(const Flavour& cFlavour, const TriangleArray& cTriangles, int iGpuId, std::uint64_t nFreeGPUMemory,
          bool bDiagnostics)
        : m_bGpu(cFlavour.IsGpu())
    {
        nb::gil_scoped_release cRelease;
        std::unique_lock cOrder(CallOrder(m_bGpu));
        CallLibrary(
            [&](std::string& sError)
            {
                return cFlavour.CreateScene(m_cScene, cTriangles.shape(0), cTriangles.data(), iGpuId, m_sLog,
                                            sError, bDiagnostics, nFreeGPUMemory);
            });
    }
    ~Scene()
    {
        std::shared_lock cOrder(CallOrder(m_bGpu));
        m_cScene.Reset();
    }

    nb::tuple Trace(const RayArrays& cRays, float fMaxDistance, ResultArrays& cArrays)
    {
        cRays.Check();
        RayTracingResults cResults = BindResults(cArrays, cRays.Count());
        std::string sLog;
        {
            nb::gil_scoped_release cRelease;
            std::shared_lock cOrder(CallOrder(m_bGpu));
            CallLibrary(
                [&](std::string& sError)
                {
                    return m_cScene.Trace(cResults, cRays.Count(), cRays.Origins(), cRays.cDirections.data(),
                                          cRays.Distances(), sLog, sError, fMaxDistance);
                });
        }
        return nb::make_tuple(CollectedHits(cResults), sLog);
    }

    std::uint64_t TriangleCount() const { return m_cScene.TriangleCount(); }
    bool KeptStructures() const { return m_cScene.KeptStructures(); }
    const std::string& Log() const { return m_sLog; }

private:
    bool m_bGpu;
    FlavourScene m_cScene;
    std::string m_sLog;
};

} // namespace

NB_MODULE(_raytracing, m)
{
    m.doc() =
        "Native part of raytracing: flavours of the library loaded at run time, their calls and scenes. "
        "Use the package's public API; arguments here must already be checked and converted.";
    RegisterLibraryFailure();

    nb::class_<Flavour>(m, "Flavour",
                        "A flavour of the library (GPU or CPU), loaded from the package folder.")
        .def_static("load", &LoadFlavour, nb::arg("device"), nb::arg("gpu"),
                    "Loads the flavour for device 'auto', 'gpu' or 'cpu'; raises RayTracingError when the "
                    "flavour asked for cannot run.")
        .def_prop_ro("is_gpu", &Flavour::IsGpu)
        .def_prop_ro("name", &Flavour::Name, "'GPU' or 'CPU'.")
        .def_prop_ro("library_path", &Flavour::LibraryPath)
        .def_prop_ro("device_name", &Flavour::DeviceName, "The GPU's name, or the CPU flavour's threads.")
        .def_prop_ro("note", &Flavour::Note, "Why 'auto' passed over the GPU flavour, or ''.")
        .def_prop_ro("optix_version", &Flavour::OptixVersion)
        .def(
            "trace",
            [](const Flavour& cFlavour, const TriangleArray& cTriangles, int iGpuId,
               std::uint64_t nFreeGPUMemory, bool bDiagnostics, float fMaxDistance,
               std::optional<PointArray> cOrigins, PointArray cDirections,
               std::optional<DistanceArray> cDistances, OutputArray<float> cNearest,
               OutputArray<std::int32_t> cNearestTriangle, OutputArray<float> cFarthest,
               OutputArray<std::int32_t> cFarthestTriangle, OutputArray<std::uint64_t> cCounts, bool bAllHits)
            {
                ResultArrays cArrays{cNearest,          cNearestTriangle, cFarthest,
                                     cFarthestTriangle, cCounts,          bAllHits};
                return TraceOnce(cFlavour, cTriangles, iGpuId, nFreeGPUMemory, bDiagnostics,
                                 RayArrays{cOrigins, cDirections, cDistances}, fMaxDistance, cArrays);
            },
            nb::arg("triangles").noconvert(), nb::arg("gpu"), nb::arg("free_memory"), nb::arg("diagnostics"),
            nb::arg("max_distance"), nb::arg("origins").none().noconvert(), nb::arg("directions").noconvert(),
            nb::arg("distances").none().noconvert(), nb::arg("nearest").none().noconvert(),
            nb::arg("nearest_triangle").none().noconvert(), nb::arg("farthest").none().noconvert(),
            nb::arg("farthest_triangle").none().noconvert(), nb::arg("counts").none().noconvert(),
            nb::arg("all_hits"), "One stateless RayTracing call; returns (all-hits distances or None, log).");

    nb::class_<Scene>(m, "Scene", "A persistent scene of one flavour.")
        .def(nb::init<const Flavour&, const TriangleArray&, int, std::uint64_t, bool>(), nb::arg("flavour"),
             nb::arg("triangles").noconvert(), nb::arg("gpu"), nb::arg("free_memory"), nb::arg("diagnostics"),
             nb::keep_alive<1, 2>(), "RayTracingScene::Create; raises RayTracingError on failure.")
        .def(
            "trace",
            [](Scene& cScene, float fMaxDistance, std::optional<PointArray> cOrigins, PointArray cDirections,
               std::optional<DistanceArray> cDistances, OutputArray<float> cNearest,
               OutputArray<std::int32_t> cNearestTriangle, OutputArray<float> cFarthest,
               OutputArray<std::int32_t> cFarthestTriangle, OutputArray<std::uint64_t> cCounts, bool bAllHits)
            {
                ResultArrays cArrays{cNearest,          cNearestTriangle, cFarthest,
                                     cFarthestTriangle, cCounts,          bAllHits};
                return cScene.Trace(RayArrays{cOrigins, cDirections, cDistances}, fMaxDistance, cArrays);
            },
            nb::arg("max_distance"), nb::arg("origins").none().noconvert(), nb::arg("directions").noconvert(),
            nb::arg("distances").none().noconvert(), nb::arg("nearest").none().noconvert(),
            nb::arg("nearest_triangle").none().noconvert(), nb::arg("farthest").none().noconvert(),
            nb::arg("farthest_triangle").none().noconvert(), nb::arg("counts").none().noconvert(),
            nb::arg("all_hits"), "RayTracingScene::Trace; returns (all-hits distances or None, log).")
        .def_prop_ro("triangle_count", &Scene::TriangleCount)
        .def_prop_ro("kept_structures", &Scene::KeptStructures,
                     "Whether the last trace ran on structures the scene keeps.")
        .def_prop_ro("log", &Scene::Log, "The log of the scene's creation.");
}
