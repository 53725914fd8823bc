hseg_sources(flatnn
  src/flatnn/conv.cpp
  src/flatnn/convmul.cpp
  src/flatnn/data.cpp
  src/flatnn/lrn_softmax.cpp
  src/flatnn/norm_act.cpp
  src/flatnn/pooling.cpp
)
