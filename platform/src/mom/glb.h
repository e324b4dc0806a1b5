// The client's own structures behind the opaque handles of qv_mom.h.
#ifndef QV_MOM_GLB_H
#define QV_MOM_GLB_H

#include "qv_mom.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "backend.h"
#include "follower.h"

struct qv_mom_conn {
    std::unique_ptr<qv::mom::Connection> impl;
};

struct qv_mom_ab {
    qv_mom_glb_t *glb;
    std::string name;
};

struct qv_mom_glb {
    std::string url;
    std::shared_ptr<qv::mom::Backend> backend;
    std::unique_ptr<qv::mom::Follower> follower;
    std::mutex ab_mutex;
    std::vector<std::unique_ptr<qv_mom_ab>> abs; // freed with the glb
};

#endif // QV_MOM_GLB_H
