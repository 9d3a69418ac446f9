#include "FlavourScene.h"

#include <new>
#include <utility>

FlavourScene::FlavourScene(FlavourScene&& cOther) noexcept
    : m_pScene(std::exchange(cOther.m_pScene, nullptr)), m_cFunctions(cOther.m_cFunctions)
{
}

FlavourScene& FlavourScene::operator=(FlavourScene&& cOther) noexcept
{
    if (this != &cOther)
    {
        Reset();
        m_pScene = std::exchange(cOther.m_pScene, nullptr);
        m_cFunctions = cOther.m_cFunctions;
    }
    return *this;
}

void FlavourScene::Reset()
{
    if (m_pScene == nullptr)
        return;
    RayTracingScene* pScene = std::exchange(m_pScene, nullptr);
    m_cFunctions.pDestroy(pScene);
    ::operator delete(static_cast<void*>(pScene));
}
